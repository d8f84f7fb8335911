// A page's message text, as arbitrary bytes read as UTF-8: split into command name and argument
// text, then read through Args the way the command callbacks read it (whole, at every ",", at the
// first ","), with every conversion they use.
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "fuzzsupport.h"

#include <QStringList>

#include <climits>
#include <cstddef>
#include <cstdint>

namespace {

// The conversions: a number in the type's range reads as itself, anything else as 0.
void checkNumbers(const Args& a, int i)
{
    bool ok = false;
    const qlonglong v = a.text(i).toLongLong(&ok);
    FUZZ_CHECK(a.toLongLong(i) == (ok ? v : 0));
    FUZZ_CHECK(a.toLong(i) == (ok && v >= LONG_MIN && v <= LONG_MAX ? v : 0));
    FUZZ_CHECK(a.toInt(i) == (ok && v >= INT_MIN && v <= INT_MAX ? v : 0));
    FUZZ_CHECK(a.toShort(i) == (ok && v >= SHRT_MIN && v <= SHRT_MAX ? v : 0));
    FUZZ_CHECK(a.toFlag(i) == (a.toInt(i) != 0));
}

void checkParts(const Args& a)
{
    for (int i = 0; i < a.count(); ++i) {
        checkNumbers(a, i);
        // Text that came in as UTF-8 goes back to the library unchanged.
        const QByteArray utf8 = a.utf8(i);
        FUZZ_CHECK(QString::fromUtf8(utf8.constData(), utf8.size()) == a.text(i));
        (void)a.local8(i);
    }
    // Reading past the parts is allowed and gives empty text and 0.
    FUZZ_CHECK(a.text(a.count()).isEmpty() && a.text(-1).isEmpty());
    FUZZ_CHECK(a.toInt(a.count()) == 0 && a.toLongLong(-1) == 0 && a.utf8(a.count() + 5).isEmpty());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::installQuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString msg = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QString name, args;
    MessageRun::parse(msg, &name, &args);

    const int open = msg.indexOf(QLatin1Char('('));
    if (open < 0) {
        FUZZ_CHECK(name == msg && args.isEmpty());
    } else {
        // name "(" args, then at most the closing character.
        FUZZ_CHECK(!name.contains(QLatin1Char('(')));
        const QString head = name + QLatin1Char('(') + args;
        FUZZ_CHECK(msg.startsWith(head));
        FUZZ_CHECK(msg.length() - head.length() <= 1);
    }

    const Args whole = Args::whole(args);
    FUZZ_CHECK(whole.count() == 1 && whole.text(0) == args);
    checkParts(whole);

    const Args split = Args::split(args);
    FUZZ_CHECK(split.count() == args.count(QLatin1Char(',')) + 1);
    QStringList parts;
    for (int i = 0; i < split.count(); ++i)
        parts << split.text(i);
    FUZZ_CHECK(parts.join(QLatin1Char(',')) == args);
    checkParts(split);

    const Args first = Args::splitFirst(args);
    FUZZ_CHECK(first.count() == 2);
    if (args.contains(QLatin1Char(','))) {
        FUZZ_CHECK(!first.text(0).contains(QLatin1Char(',')));
        FUZZ_CHECK(first.text(0) + QLatin1Char(',') + first.text(1) == args);
    } else {
        FUZZ_CHECK(first.text(0) == args && first.text(1) == args);
    }
    checkParts(first);
    return 0;
}
