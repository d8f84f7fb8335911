// Where the customer's pages go and how the browser is started: pure functions over the screen
// geometries, shared by the in-process launcher and the browser helper program.
#pragma once

#include <QList>
#include <QRect>
#include <QSize>
#include <QString>
#include <QStringList>

namespace browserlaunch {

// The customer's pad screen: with 2 or more screens the smallest one (narrower and lower than
// the one held, strictly, in order; ties keep the earlier), -1 with fewer. With a single screen
// it is the teller's own, so nothing is chosen.
inline int padScreen(const QList<QRect>& screens)
{
    if (screens.size() < 2)
        return -1;
    int chosen = 0;
    for (int i = 1; i < screens.size(); ++i) {
        if (screens[i].width() < screens[chosen].width() && screens[i].height() < screens[chosen].height())
            chosen = i;
    }
    return chosen;
}

// The browser's arguments: kiosk on the pad screen only when there is one.
inline QStringList arguments(const QList<QRect>& screens, const QSize& page, const QString& url,
                             const QString& userDataDir)
{
    QStringList args;
    const int pad = padScreen(screens);
    if (pad >= 0)
        args << QStringLiteral("--kiosk") << QStringLiteral("--window-position=%1,0").arg(screens[pad].left());
    args << QStringLiteral("--window-size=%1,%2").arg(page.width()).arg(page.height())
         << QStringLiteral("--new-window") << url << QStringLiteral("--user-data-dir=%1").arg(userDataDir)
         << QStringLiteral("--no-first-run") << QStringLiteral("--no-default-browser-check")
         << QStringLiteral("--no-announcement");
    return args;
}

}  // namespace browserlaunch
