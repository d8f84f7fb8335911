// Base64Encode(text), Base64Decode(first,second): handed to the device library as they stand.
// The library reads the file named by Base64Encode's text and writes the one named by
// Base64Decode's second piece; both are checked against the file roots first.
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <cstdlib>

QString MessageRun::Base64Encode_callback(QString name, QString args, MessageRun*)
{
    if (!pathpolicy::allowed(args, name))
        return reply::send(reply::framedEmpty(name));
    char* text = ::Base64Encode(args.toStdString().c_str());
    const QString r = reply::send(reply::framed(name, text ? QString::fromLatin1(text) : QString()));
    std::free(text);
    return r;
}

QString MessageRun::Base64Decode_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2 || !pathpolicy::allowed(a.text(1), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::Base64Decode(a.local8(0).constData(), a.local8(1).constData())));
}
