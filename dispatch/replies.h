// The reply forms every command family uses. Values go in as they are, without escaping:
// pages parse these texts by their fixed "Begin<name>" and "End<name>" marks.
#pragma once

#include <QString>

namespace reply {

inline QString framed(const QString& name, const QString& result)
{
    return QStringLiteral("Begin%1%2End%1").arg(name).arg(result);
}
inline QString framedBool(const QString& name, bool ok)
{
    return ok ? QStringLiteral("Begin%1trueEnd%1").arg(name) : QStringLiteral("Begin%1falseEnd%1").arg(name);
}
inline QString framedTrue(const QString& name) { return framedBool(name, true); }
inline QString framedFalse(const QString& name) { return framedBool(name, false); }
inline QString framedEmpty(const QString& name) { return QStringLiteral("Begin%1End%1").arg(name); }
inline QString framedNumber(const QString& name, long long n) { return framed(name, QString::number(n)); }
inline QString framedPair(const QString& name, long long a, long long b)
{
    return QStringLiteral("Begin%1(%2,%3)End%1").arg(name).arg(a).arg(b);
}
inline QString lRet(bool ok, const QString& info)
{
    return ok ? QStringLiteral("{\"lRet\":0,\"outInfo\":\"%1\"}").arg(info)
              : QStringLiteral("{\"lRet\":1,\"outInfo\":\"%1\"}").arg(info);
}
inline QString jsonEvent(bool ok, const QString& funcname, const QString& data)
{
    return QStringLiteral("{\"code\":\"%1\",\"funcname\":\"%2\",\"data\":\"%3\"}")
        .arg(ok ? QStringLiteral("1") : QStringLiteral("0"))
        .arg(funcname)
        .arg(data);
}

// Sends a composed reply to the current client and returns it, as every callback does.
QString send(const QString& text);

}  // namespace reply
