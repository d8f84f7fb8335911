// The simulated ID, social-security, bank and IC cards and the SAM, from the device profile
// ("cards"), and the choice between the simulated reader and real PC/SC readers.
#include "devicelib/portable/cards/cards.h"
#include "devicelib/portable/cards/pcsc.h"
#include "devicelib/portable/core.h"

#include <QElapsedTimer>
#include <QJsonObject>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace portable::cards {
namespace {

// The sample cards: one customer, whose ID number carries a valid check digit.
const Fields kIdCard = {
    {"name", QStringLiteral("李晓红")},
    {"sex", QStringLiteral("女")},
    {"nation", QStringLiteral("汉")},
    {"birthDate", "19880614"},
    {"address", QStringLiteral("北京市海淀区中关村南大街27号院3号楼502室")},
    {"idNumber", "110108198806140327"},
    {"issuer", QStringLiteral("北京市公安局海淀分局")},
    {"validFrom", "20160822"},
    {"validTo", "20360822"},
    {"serial", "9F1C0A4B27D63E85"},
};
const Fields kSocialSecurityCard = {
    {"cardNo", "A01234567"},
    {"name", QStringLiteral("李晓红")},
    {"idNumber", "110108198806140327"},
    {"region", "110000"},
    {"cardVersion", "3.00"},
    {"validFrom", "20190301"},
    {"validTo", "20290301"},
};
const Fields kBankCard = {
    {"cardNo", "6228480012345678903"},
    {"expiry", "2912"},
    {"holder", "LI/XIAOHONG"},
    {"aid", "A000000333010101"},
};
const Fields kIcCard = {{"uid", "A1B2C3D4"}};
const char* const kDefaultSamId = "05.01-20231108-0012345678-2541069913";

// The reader pages chose with bOpenIDCardUSBPort: the first one, the simulated one, or a
// PC/SC reader by name.
struct Selection {
    std::mutex mutex;
    enum { First, Simulated, Named } kind = First;
    QString name;
};

Selection& selection()
{
    // Lives to the end, like the profile; a new profile starts from the first reader again.
    static Selection* const s = [] {
        auto* made = new Selection;
        addResetHook([made] {
            std::lock_guard<std::mutex> lock(made->mutex);
            made->kind = Selection::First;
        });
        return made;
    }();
    return *s;
}

// A card of the profile: its sample fields overlaid with the profile's, or nothing when the
// profile says null (no card on the reader).
bool profileCard(const char* key, const Fields& sample, Fields* fields)
{
    const QString path = QStringLiteral("cards.") + key;
    const QJsonValue cards = profile().value("cards");
    if (!cards.isUndefined() && !cards.isObject())
        logLine(QStringLiteral("device profile %1: key \"cards\" is not an object; using the sample cards").arg(profileSource()));
    const QJsonValue v = cards.toObject().value(key);
    *fields = sample;
    if (v.isNull())
        return false;
    if (v.isUndefined())
        return true;
    if (!v.isObject()) {
        logLine(QStringLiteral("device profile %1: key \"%2\" is neither an object nor null; using the sample card")
                    .arg(profileSource(), path));
        return true;
    }
    const QJsonObject o = v.toObject();
    for (auto it = o.begin(); it != o.end(); ++it) {
        if (!it.value().isString()) {
            logLine(QStringLiteral("device profile %1: key \"%2.%3\" is not a text; ignored").arg(profileSource(), path, it.key()));
            continue;
        }
        bool found = false;
        for (auto& f : *fields) {
            if (f.first == it.key()) {
                f.second = it.value().toString();
                found = true;
            }
        }
        if (!found)
            fields->emplace_back(it.key(), it.value().toString());
    }
    return true;
}

QString field(const Fields& fields, const QString& key)
{
    for (const auto& f : fields) {
        if (f.first == key)
            return f.second;
    }
    return QString();
}

// The fields of a card text, in the order the text gives them.
Fields pick(const Fields& fields, std::initializer_list<const char*> keys)
{
    Fields r;
    for (const char* k : keys)
        r.emplace_back(k, field(fields, k));
    return r;
}

Fields idFields(Failure* why)
{
    Fields card;
    if (!profileCard("idCard", kIdCard, &card)) {
        *why = Failure::NoCard;
        return {};
    }
    *why = Failure::None;
    Fields r = pick(card, {"name", "sex", "nation", "birthDate", "address", "idNumber", "issuer", "validFrom", "validTo"});
    const QString photo = field(card, "photo");
    r.emplace_back("photo", photo.isEmpty() ? QString::fromLatin1(samplePortraitBase64()) : photo);
    return r;
}

// The simulated reader answers for bank and IC cards when the profile says so, when pages
// chose it, or when no PC/SC reader is present: a real terminal's empty field is never
// answered by the sample card.
bool simulatedOnly(QStringList* readers)
{
    {
        Selection& s = selection();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.kind == Selection::Simulated)
            return true;
    }
    if (profileFlag(QStringLiteral("cards.simulate"), false))
        return true;
    *readers = pcsc::readers();
    return readers->isEmpty();
}

// The PC/SC readers a read may use for readerType, in the order to try them.
QStringList readersFor(const QStringList& all, int readerType)
{
    Selection& s = selection();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.kind == Selection::Named)
            return all.contains(s.name) ? QStringList{s.name} : QStringList();
    }
    QStringList contact, contactless;
    for (const QString& r : all)
        (pcsc::isContactless(r) ? contactless : contact).append(r);
    if (readerType == 1)
        return contact;
    if (readerType == 2)
        return contactless;
    return contact + contactless;
}

void escapeInto(QString& out, const QString& s)
{
    for (const QChar c : s) {
        const ushort u = c.unicode();
        if (u == '"' || u == '\\') {
            out += QLatin1Char('\\');
            out += c;
        } else if (u >= 0x20 && u < 0x7f) {
            out += c;
        } else {
            // Everything else, control characters and non-ASCII alike, as \uXXXX (UTF-16 units,
            // so characters beyond the BMP become surrogate pairs, as JSON has it).
            out += QStringLiteral("\\u%1").arg(u, 4, 16, QLatin1Char('0'));
        }
    }
}

}  // namespace

QString asciiJson(const Fields& fields, const QString& leadingNumberKey, int leadingNumber)
{
    QString out = QStringLiteral("{");
    if (!leadingNumberKey.isEmpty())
        out += QStringLiteral("\"%1\":%2").arg(leadingNumberKey).arg(leadingNumber);
    for (const auto& f : fields) {
        if (out.size() > 1)
            out += QLatin1Char(',');
        out += QLatin1Char('"');
        escapeInto(out, f.first);
        out += QStringLiteral("\":\"");
        escapeInto(out, f.second);
        out += QLatin1Char('"');
    }
    return out + QLatin1Char('}');
}

QString failureText(Failure why, const QString& detail)
{
    return asciiJson({{"code", QString::number(static_cast<int>(why))}, {"error", detail}});
}

QString failureText(Failure why)
{
    switch (why) {
    case Failure::NoCard: return failureText(why, "no card");
    case Failure::NoReader: return failureText(why, "no reader");
    case Failure::Busy: return failureText(why, "busy");
    case Failure::ReadError: return failureText(why, "read error");
    case Failure::UnknownType: return failureText(why, "unknown type");
    case Failure::None: break;
    }
    return failureText(Failure::ReadError);
}

QString idCardText()
{
    Failure why;
    Fields f = idFields(&why);
    if (why != Failure::None)
        return failureText(why);
    f.insert(f.begin(), {"code", "0"});
    return asciiJson(f);
}

QString readCardText()
{
    Failure why;
    const Fields f = idFields(&why);
    if (why != Failure::None)
        return asciiJson({{"error", "no card"}}, "result", 0);
    return asciiJson(f, "result", 1);
}

QByteArray idChipSerial()
{
    Fields card;
    if (!profileCard("idCard", kIdCard, &card))
        return QByteArray();
    return field(card, "serial").toLatin1();
}

QString socialSecurityText(const char* fn, int type, bool* ok)
{
    logLine(QStringLiteral("%1: social-security card, type %2").arg(fn).arg(type));
    Fields card;
    *ok = profileCard("socialSecurityCard", kSocialSecurityCard, &card);
    if (!*ok)
        return failureText(Failure::NoCard);
    Fields f = pick(card, {"cardNo", "name", "idNumber", "region", "cardVersion", "validFrom", "validTo"});
    f.insert(f.begin(), {"code", "0"});
    return asciiJson(f);
}

QString bankCardText(int readerType, bool* ok)
{
    *ok = false;
    if (readerType < 0 || readerType > 2) {
        logLine(QStringLiteral("GetBankCardInfoVX: unknown reader type %1").arg(readerType));
        return failureText(Failure::UnknownType);
    }
    const char* const kInterface[] = {"contact", "contact", "contactless"};
    QStringList all;
    if (simulatedOnly(&all)) {
        Fields card;
        if (!profileCard("bankCard", kBankCard, &card)) {
            logLine(QStringLiteral("GetBankCardInfoVX: no bank card on the simulated reader"));
            return failureText(Failure::NoCard);
        }
        Fields f = pick(card, {"cardNo", "expiry", "holder", "aid"});
        f.insert(f.begin(), {"code", "0"});
        f.emplace_back("interface", kInterface[readerType]);
        *ok = true;
        return asciiJson(f);
    }
    const QStringList readers = readersFor(all, readerType);
    if (readers.isEmpty()) {
        logLine(QStringLiteral("GetBankCardInfoVX: no PC/SC reader for type %1 among %2").arg(readerType).arg(all.join(", ")));
        return failureText(Failure::NoReader);
    }
    Failure last = Failure::NoCard;
    // One time limit for the whole read, however many readers it tries.
    QElapsedTimer clock;
    clock.start();
    for (const QString& reader : readers) {
        const int left = pcsc::timeoutMs() - int(clock.elapsed());
        if (left <= 0)
            break;
        pcsc::BankCard card;
        QString reason;
        const Failure f = pcsc::readBankCard(reader, left, &card, &reason);
        if (f == Failure::None) {
            *ok = true;
            return asciiJson({{"code", "0"},
                              {"cardNo", QString::fromLatin1(card.pan)},
                              {"expiry", QString::fromLatin1(card.expiry)},
                              {"holder", QString::fromLatin1(card.holder)},
                              {"aid", QString::fromLatin1(card.aid)},
                              {"interface", pcsc::isContactless(reader) ? "contactless" : "contact"}});
        }
        logLine(QStringLiteral("GetBankCardInfoVX: %1: %2").arg(reader, reason));
        // A card that failed tells the page more than an empty reader beside it.
        if (last == Failure::NoCard)
            last = f;
    }
    return failureText(last);
}

int icCardSerial()
{
    QByteArray uid;
    QStringList all;
    if (simulatedOnly(&all)) {
        Fields card;
        if (!profileCard("icCard", kIcCard, &card))
            return 0;
        uid = QByteArray::fromHex(field(card, "uid").toLatin1());
    } else {
        QString why;
        bool read = false;
        QElapsedTimer clock;
        clock.start();
        for (const QString& reader : readersFor(all, 0)) {
            const int left = pcsc::timeoutMs() - int(clock.elapsed());
            if (left <= 0)
                break;
            if (pcsc::readUid(reader, left, &uid, &why) == Failure::None) {
                read = true;
                break;
            }
            logLine(QStringLiteral("iReadICCardSnr: %1: %2").arg(reader, why));
        }
        if (!read)
            return 0;
    }
    uint32_t v = 0;
    for (int i = 0; i < 4 && i < uid.size(); ++i)
        v |= uint32_t(uint8_t(uid[i])) << (8 * i);
    return static_cast<int32_t>(v);
}

bool samPresent()
{
    return profileFlag(QStringLiteral("cards.sam.present"), true);
}

QByteArray samId()
{
    return profileText(QStringLiteral("cards.sam.id"), QString::fromLatin1(kDefaultSamId)).toLatin1();
}

bool openUsb(const QByteArray& port)
{
    Selection& s = selection();
    if (port.isEmpty() || port == "USB1") {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.kind = Selection::First;
        return true;
    }
    if (port == "SIM") {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.kind = Selection::Simulated;
        return true;
    }
    const QString name = QString::fromUtf8(port);
    if (!pcsc::readers().contains(name)) {
        logLine(QStringLiteral("bOpenIDCardUSBPort: no reader named \"%1\"").arg(name.left(200)));
        return false;
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    s.kind = Selection::Named;
    s.name = name;
    return true;
}

bool openSerial(const QByteArray& device)
{
    const int fd = ::open(device.constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        logLine(QStringLiteral("openIDCardSerialPort: %1: %2").arg(QString::fromUtf8(device.left(200)), QString::fromLocal8Bit(std::strerror(errno))));
        return false;
    }
    ::close(fd);
    logLine(QStringLiteral("openIDCardSerialPort: %1 is there; the cards stay simulated").arg(QString::fromUtf8(device)));
    return true;
}

bool close()
{
    {
        Selection& s = selection();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.kind = Selection::First;
    }
    pcsc::release();
    return true;
}

}  // namespace portable::cards
