// The argument text of a command, read the way each command's row says: whole, split at every
// "," (empty parts kept), or split at the first "," only. Missing parts read as empty text and
// their numbers as 0, so a callback can check count() and otherwise read freely.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class Args {
public:
    // One argument: the whole argument text, commas and all.
    static Args whole(const QString& text) { return Args(QStringList{text}); }
    // Split at every ",", empty parts kept: "a,,b" is three parts, "" is one empty part.
    static Args split(const QString& text) { return Args(text.split(QLatin1Char(','))); }
    // Split at the first "," only; without a "," both parts are the whole text.
    static Args splitFirst(const QString& text)
    {
        const int i = text.indexOf(QLatin1Char(','));
        if (i < 0)
            return Args(QStringList{text, text});
        return Args(QStringList{text.left(i), text.mid(i + 1)});
    }

    int count() const { return m_parts.size(); }
    QString text(int i) const { return m_parts.value(i); }
    QByteArray utf8(int i) const { return text(i).toUtf8(); }
    QByteArray local8(int i) const { return text(i).toLocal8Bit(); }

    // Base-10 conversions; a non-number (or a number out of the type's range) reads as 0.
    int toInt(int i) const { return text(i).toInt(); }
    short toShort(int i) const { return text(i).toShort(); }
    long toLong(int i) const { return text(i).toLong(); }
    long long toLongLong(int i) const { return text(i).toLongLong(); }
    float toFloat(int i) const { return text(i).toFloat(); }
    bool toFlag(int i) const { return toInt(i) != 0; }

private:
    explicit Args(QStringList parts) : m_parts(std::move(parts)) {}
    QStringList m_parts;
};
