// What every fuzz target shares: a quiet log (the library explains each refused input in a log
// line; printing thousands a second would slow the run to a crawl) and a hard stop that
// libFuzzer reports as a crash with the input that caused it.
#pragma once

#include <QString>
#include <QtGlobal>

#include <cstdio>
#include <cstdlib>

namespace fuzz {

inline void quietLog(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "fatal: %s\n", qPrintable(msg));
        std::abort();
    }
}

inline void installQuietLog()
{
    qInstallMessageHandler(quietLog);
}

// A property the code promises does not hold for this input.
#define FUZZ_CHECK(cond)                                                                    \
    do {                                                                                    \
        if (!(cond)) {                                                                      \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);  \
            std::abort();                                                                   \
        }                                                                                   \
    } while (0)

}  // namespace fuzz
