// The card-reader library's C entry points: one line each through traced(), so every call
// honours the script and shows in the trace.
#include "devicelib/cardreader.h"
#include "devicelib/portable/cards/cards.h"
#include "devicelib/portable/core.h"

#include <QString>

#include <chrono>
#include <mutex>

namespace portable {
namespace {

// One read at a time on the reader; a read that cannot have it within 5 s is answered busy.
std::timed_mutex g_reader;

template <class F>
QString whileHeld(F&& read)
{
    std::unique_lock<std::timed_mutex> lock(g_reader, std::chrono::seconds(5));
    if (!lock.owns_lock())
        return cards::failureText(cards::Failure::Busy);
    return read();
}

Text ascii(const QString& s)
{
    return Text(s.toStdString());
}

void readInto(const char* fn, QString* out)
{
    OutQString o(out);
    traced<void>(fn, {o}, [&] { o.set(whileHeld([] { return cards::idCardText(); })); });
}

}  // namespace
}  // namespace portable

using namespace portable;

extern "C" {

char* sIDCardReader(void)
{
    return heapText(traced<Text>("sIDCardReader", {}, [] { return ascii(whileHeld([] { return cards::idCardText(); })); }));
}

void ReadSFZCardVX(QString* out) { readInto("ReadSFZCardVX", out); }
void readIDMsg_qt(QString* out) { readInto("readIDMsg_qt", out); }
void readIDMsgVX_qt(QString* out) { readInto("readIDMsgVX_qt", out); }
void ReadSFZCardBas_VX(QString* out) { readInto("ReadSFZCardBas_VX", out); }
void ReadSFZCardBas_DK(QString* out) { readInto("ReadSFZCardBas_DK", out); }

char* ReadCard(void* reserved, const char* param)
{
    // The reserved pointer is not a text: traced as null, or "<object>" should a caller pass one.
    const Arg reservedArg = reserved ? Arg(ObjectArg{reserved}) : Arg(static_cast<const char*>(nullptr));
    return heapText(traced<Text>("ReadCard", {reservedArg, param}, [&] {
        if (param)
            logLine(QStringLiteral("ReadCard: parameter \"%1\" (not used)").arg(QString::fromUtf8(param).left(200)));
        return ascii(whileHeld([] { return cards::readCardText(); }));
    }));
}

char* sReadIDCardSnr(void)
{
    return heapText(traced<Text>("sReadIDCardSnr", {}, [] {
        const QByteArray serial = cards::idChipSerial();
        return serial.isEmpty() ? Text() : Text(serial.toStdString());
    }));
}

void iReadCardBas_noPasam_qt(int type, QString* out)
{
    OutQString o(out);
    traced<void>("iReadCardBas_noPasam_qt", {type, o}, [&] {
        bool ok;
        o.set(whileHeld([&] { return cards::socialSecurityText("iReadCardBas_noPasam_qt", type, &ok); }));
    });
}

void ReadCardBasExVX(QString* out, int type)
{
    OutQString o(out);
    traced<void>("ReadCardBasExVX", {o, type}, [&] {
        bool ok;
        o.set(whileHeld([&] { return cards::socialSecurityText("ReadCardBasExVX", type, &ok); }));
    });
}

bool ReadSBKCardBas_DK(int type, QString* out)
{
    OutQString o(out);
    return traced<bool>("ReadSBKCardBas_DK", {type, o}, [&] {
        bool ok = false;
        o.set(whileHeld([&] { return cards::socialSecurityText("ReadSBKCardBas_DK", type, &ok); }));
        return ok;
    });
}

bool GetBankCardInfoVX(QString* out, int readerType)
{
    OutQString o(out);
    return traced<bool>("GetBankCardInfoVX", {o, readerType}, [&] {
        bool ok = false;
        o.set(whileHeld([&] { return cards::bankCardText(readerType, &ok); }));
        return ok;
    });
}

int iReadICCardSnr(void)
{
    return traced<int>("iReadICCardSnr", {}, [] {
        int uid = 0;
        whileHeld([&] { uid = cards::icCardSerial(); return QString(); });
        return uid;
    });
}

bool bOpenIDCardUSBPort(const char* port)
{
    return traced<bool>("bOpenIDCardUSBPort", {port}, [&] { return cards::openUsb(QByteArray(port ? port : "")); });
}

bool openIDCardSerialPort(const char* device)
{
    return traced<bool>("openIDCardSerialPort", {device}, [&] { return cards::openSerial(QByteArray(device ? device : "")); });
}

bool bCloseIDCardDevie(void)
{
    return traced<bool>("bCloseIDCardDevie", {}, [] { return cards::close(); });
}

bool bgetSAMStatus(void)
{
    return traced<bool>("bgetSAMStatus", {}, [] { return cards::samPresent(); });
}

char* GetSAMID(void)
{
    return heapText(traced<Text>("GetSAMID", {}, [] {
        return cards::samPresent() ? Text(cards::samId().toStdString()) : Text();
    }));
}

bool bPlayVoice(int n)
{
    return traced<bool>("bPlayVoice", {n}, [&] { return cards::playVoice(n); });
}

}  // extern "C"
