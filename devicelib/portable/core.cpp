#include "devicelib/portable/core.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QImage>
#include <QJsonDocument>
#include <QJsonParseError>

#include <opencv2/core.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace portable {

namespace {

// What a machine without a profile file presents: every simulated device, so a page can try
// every command without hardware.
const char* const kBuiltInProfile = R"json({
  "library": { "version": "portable-devicelib 1.0.2", "serial": "PDL-2B19-000001" },
  "usb": [
    { "vid": "2b19", "pid": "0200", "name": "Portable Document Camera" },
    { "vid": "0400", "pid": "c35a", "name": "Portable ID and Social-Security Card Reader" }
  ],
  "socialSecurityModule": true,
  "open": { "command": "" },
  "files": { "companionDir": "" },
  "upload": { "caFile": "", "verify": true },
  "camera": { "previewWidth": 1280, "sources": {} },
  "script": {}
})json";

struct State {
    std::recursive_mutex mutex;
    QJsonObject profile;
    QString source;
    bool loaded = false;
    QHash<QString, std::deque<QJsonValue>> script;
    std::vector<std::function<void()>> resetHooks;

    std::mutex traceMutex;
    FILE* trace = nullptr;
    QString tracePath;
    bool traceFrames = false;
    bool traceInit = false;

    // Scripted callbacks on their way: a profile change waits for them, so none reaches a
    // test that has moved on.
    std::mutex deliveryMutex;
    std::condition_variable deliveryDone;
    int deliveries = 0;
};

// Never destroyed: the camera's cameras and the capture button are closed by static
// destructors, and server statics may still log or trace through the library at exit, in an
// order no file controls. What it holds needs no tidying then (the trace file is flushed by
// exit like every stdio stream).
State& state()
{
    static State* const s = new State;
    return *s;
}

// Overlays b onto a: objects merge key by key, anything else replaces. A key whose type
// differs from the built-in one is reported and the built-in value kept.
QJsonObject overlay(const QJsonObject& a, const QJsonObject& b, const QString& file, const QString& prefix)
{
    QJsonObject r = a;
    for (auto it = b.begin(); it != b.end(); ++it) {
        const QString key = prefix.isEmpty() ? it.key() : prefix + "." + it.key();
        const QJsonValue base = a.value(it.key());
        const QJsonValue v = it.value();
        if (base.isUndefined() || base.isNull()) {
            r.insert(it.key(), v);
        } else if (base.type() != v.type()) {
            logLine(QStringLiteral("device profile %1: key \"%2\" has the wrong type; using the built-in default")
                        .arg(file, key));
        } else if (base.isObject() && key != QLatin1String("script") && key != QLatin1String("camera.sources")) {
            r.insert(it.key(), overlay(base.toObject(), v.toObject(), file, key));
        } else {
            r.insert(it.key(), v);
        }
    }
    return r;
}

void loadScriptLocked(State& s)
{
    s.script.clear();
    const QJsonObject sc = s.profile.value("script").toObject();
    for (auto it = sc.begin(); it != sc.end(); ++it) {
        if (!it.value().isArray()) {
            logLine(QStringLiteral("device profile %1: key \"script.%2\" is not a list; ignored").arg(s.source, it.key()));
            continue;
        }
        std::deque<QJsonValue> q;
        for (const QJsonValue& e : it.value().toArray())
            q.push_back(e);
        s.script.insert(it.key(), q);
    }
}

void applyProfileLocked(State& s, const QByteArray& text, const QString& source)
{
    const QJsonObject defaults = QJsonDocument::fromJson(kBuiltInProfile).object();
    s.profile = defaults;
    s.source = source;
    if (!text.isEmpty()) {
        QJsonParseError err{};
        const QJsonDocument doc = QJsonDocument::fromJson(text, &err);
        if (err.error != QJsonParseError::NoError) {
            logLine(QStringLiteral("device profile %1: parse error at position %2: %3; using the built-in defaults")
                        .arg(source)
                        .arg(err.offset)
                        .arg(err.errorString()));
        } else if (!doc.isObject()) {
            logLine(QStringLiteral("device profile %1: the top level is not an object; using the built-in defaults")
                        .arg(source));
        } else {
            s.profile = overlay(defaults, doc.object(), source, QString());
        }
    }
    s.loaded = true;
    loadScriptLocked(s);
}

void loadFromEnvironmentLocked(State& s)
{
    QString path = qEnvironmentVariable("DEVICE_PROFILE");
    if (path.isEmpty()) {
        const QString local = applicationDir() + QStringLiteral("/device-profile.json");
        if (QFileInfo::exists(local))
            path = local;
    }
    if (path.isEmpty()) {
        applyProfileLocked(s, QByteArray(), QStringLiteral("built-in defaults"));
        return;
    }
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        logLine(QStringLiteral("device profile %1: cannot be read (%2); using the built-in defaults")
                    .arg(path, f.errorString()));
        applyProfileLocked(s, QByteArray(), path);
        return;
    }
    applyProfileLocked(s, f.readAll(), path);
}

State& loaded()
{
    State& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    if (!s.loaded)
        loadFromEnvironmentLocked(s);
    return s;
}

void initTraceLocked(State& s)
{
    if (s.traceInit)
        return;
    s.traceInit = true;
    s.traceFrames = qEnvironmentVariable("DEVICE_TRACE_FRAMES") == QLatin1String("1");
    const QString path = qEnvironmentVariable("DEVICE_TRACE");
    if (!path.isEmpty()) {
        s.tracePath = path;
        s.trace = std::fopen(QFile::encodeName(path).constData(), "a");
    }
}

bool isFrameFetch(const char* fn)
{
    return std::strcmp(fn, "getVideoFrame") == 0 || std::strcmp(fn, "getVideoFrameMat") == 0
        || std::strcmp(fn, "getVideoFrameMatEx") == 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

std::string jsonString(const char* s)
{
    if (!s)
        return "null";
    return jsonString(std::string(s));
}

std::string jsonString(const std::string& in)
{
    static const char* hex = "0123456789abcdef";
    std::string out;
    out.reserve(in.size() + 2);
    out += '"';
    const auto* p = reinterpret_cast<const unsigned char*>(in.data());
    const size_t n = in.size();
    size_t i = 0;
    while (i < n) {
        const unsigned char c = p[i];
        // Length of a well-formed UTF-8 sequence starting here, 0 when it is not one.
        size_t len = 0;
        if (c < 0x80)
            len = 1;
        else if (c >= 0xC2 && c <= 0xDF)
            len = 2;
        else if (c >= 0xE0 && c <= 0xEF)
            len = 3;
        else if (c >= 0xF0 && c <= 0xF4)
            len = 4;
        if (len > 1) {
            if (i + len > n) {
                len = 0;
            } else {
                for (size_t k = 1; k < len; ++k)
                    if ((p[i + k] & 0xC0) != 0x80)
                        len = 0;
                if (len == 3 && ((c == 0xE0 && p[i + 1] < 0xA0) || (c == 0xED && p[i + 1] > 0x9F)))
                    len = 0;
                if (len == 4 && ((c == 0xF0 && p[i + 1] < 0x90) || (c == 0xF4 && p[i + 1] > 0x8F)))
                    len = 0;
            }
        }
        if (len == 0) {
            out += "\\\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
            ++i;
            continue;
        }
        if (len == 1) {
            switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    out += "\\u00";
                    out += hex[c >> 4];
                    out += hex[c & 15];
                } else {
                    out += static_cast<char>(c);
                }
            }
        } else {
            out.append(reinterpret_cast<const char*>(p + i), len);
        }
        i += len;
    }
    out += '"';
    return out;
}

Arg::Arg(const char* s) : m_json(jsonString(s)) {}
Arg::Arg(bool b) : m_json(b ? "true" : "false") {}
Arg::Arg(double d)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", d);
    m_json = buf;
}
Arg::Arg(FnArg f) : m_json(f.p ? "\"<fn>\"" : "null") {}
Arg::Arg(ObjectArg o) : m_json(o.p ? "\"<object>\"" : "null") {}
Arg::Arg(Out& out) : m_json("\"<out>\""), m_out(&out) {}
Arg::Arg(PtrArg p) : m_json(p.p ? "\"<ptr>\"" : "null") {}
Arg::Arg(const CallbackArg& cb) : m_json(cb.fn ? "\"<fn>\"" : "null"), m_cb(&cb) {}
Arg::Arg(BytesArg b)
{
    static const char* hex = "0123456789abcdef";
    if (!b.p) {
        m_json = "null";
        return;
    }
    const auto* p = static_cast<const unsigned char*>(b.p);
    m_json.reserve(b.n * 2 + 2);
    m_json += '"';
    for (size_t i = 0; i < b.n; ++i) {
        m_json += hex[p[i] >> 4];
        m_json += hex[p[i] & 15];
    }
    m_json += '"';
}

static std::string imageJson(int w, int h, const char* format)
{
    return "{\"w\":" + std::to_string(w) + ",\"h\":" + std::to_string(h) + ",\"format\":\"" + format + "\"}";
}

static const char* qimageFormatName(QImage::Format f)
{
    switch (f) {
    case QImage::Format_Invalid: return "invalid";
    case QImage::Format_RGB32: return "RGB32";
    case QImage::Format_ARGB32: return "ARGB32";
    case QImage::Format_RGB888: return "RGB888";
    case QImage::Format_BGR888: return "BGR888";
    case QImage::Format_Grayscale8: return "Grayscale8";
    case QImage::Format_RGBX8888: return "RGBX8888";
    default: return "other";
    }
}

std::string OutImage::traceJson() const
{
    if (!m_p)
        return "null";
    return imageJson(m_p->width(), m_p->height(), qimageFormatName(m_p->format()));
}

bool OutImage::fromScript(const QJsonValue& v)
{
    if (v.isNull()) {
        if (m_p)
            *m_p = QImage();
        return true;
    }
    if (!v.isObject())
        return false;
    const int w = v.toObject().value("w").toInt();
    const int h = v.toObject().value("h").toInt();
    if (w <= 0 || h <= 0)
        return false;
    if (m_p) {
        *m_p = QImage(w, h, QImage::Format_RGB32);
        m_p->fill(Qt::gray);
    }
    return true;
}

std::string OutMat::traceJson() const
{
    if (!m_p)
        return "null";
    const char* f = m_p->empty() ? "empty" : m_p->type() == CV_8UC3 ? "BGR" : m_p->type() == CV_8UC1 ? "GRAY" : "other";
    return imageJson(m_p->cols, m_p->rows, f);
}

bool OutMat::fromScript(const QJsonValue& v)
{
    if (v.isNull()) {
        if (m_p)
            m_p->release();
        return true;
    }
    if (!v.isObject())
        return false;
    const int w = v.toObject().value("w").toInt();
    const int h = v.toObject().value("h").toInt();
    if (w <= 0 || h <= 0)
        return false;
    if (m_p)
        *m_p = cv::Mat(h, w, CV_8UC3, cv::Scalar(128, 128, 128));
    return true;
}

std::string OutSizes::traceJson() const
{
    if (!m_p)
        return "null";
    std::string s = "[";
    for (size_t i = 0; i < m_p->size(); ++i) {
        if (i)
            s += ',';
        s += "[" + Arg((*m_p)[i].first).json() + "," + Arg((*m_p)[i].second).json() + "]";
    }
    return s + "]";
}

bool OutSizes::fromScript(const QJsonValue& v)
{
    if (!v.isArray())
        return false;
    std::vector<std::pair<double, double>> sizes;
    for (const QJsonValue& e : v.toArray()) {
        const QJsonArray pair = e.toArray();
        if (pair.size() != 2 || !pair[0].isDouble() || !pair[1].isDouble())
            return false;
        sizes.emplace_back(pair[0].toDouble(), pair[1].toDouble());
    }
    if (m_p)
        *m_p = sizes;
    return true;
}

// ---------------------------------------------------------------------------------------------

QString applicationDir()
{
    if (QCoreApplication::instance())
        return QCoreApplication::applicationDirPath();
    return QFileInfo(QFile::symLinkTarget(QStringLiteral("/proc/self/exe"))).absolutePath();
}

void logLine(const QString& line)
{
    qInfo().noquote() << QStringLiteral("devicelib: ") + line;
}

QJsonObject profile()
{
    State& s = loaded();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    return s.profile;
}

QString profileSource()
{
    State& s = loaded();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    return s.source;
}

QJsonValue profileValue(const QString& path, const QJsonValue& fallback)
{
    State& s = loaded();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    QJsonValue v = s.profile;
    for (const QString& key : path.split('.')) {
        if (!v.isObject())
            return fallback;
        v = v.toObject().value(key);
        if (v.isUndefined())
            return fallback;
    }
    if (!fallback.isUndefined() && !fallback.isNull() && v.type() != fallback.type()) {
        logLine(QStringLiteral("device profile %1: key \"%2\" has the wrong type; using the built-in default")
                    .arg(s.source, path));
        return fallback;
    }
    return v;
}

QString profileText(const QString& path, const QString& fallback)
{
    return profileValue(path, fallback).toString();
}

bool profileFlag(const QString& path, bool fallback)
{
    return profileValue(path, fallback).toBool();
}

double profileNumber(const QString& path, double fallback)
{
    return profileValue(path, fallback).toDouble();
}

static void runResetHooks()
{
    std::vector<std::function<void()>> hooks;
    {
        State& s = state();
        std::lock_guard<std::recursive_mutex> lock(s.mutex);
        hooks = s.resetHooks;
    }
    for (auto& h : hooks)
        h();
}

// Waits (a few seconds at most) until no scripted callback is on its way.
static void waitForDeliveries()
{
    State& s = state();
    std::unique_lock<std::mutex> lock(s.deliveryMutex);
    if (!s.deliveryDone.wait_for(lock, std::chrono::seconds(5), [&] { return s.deliveries == 0; }))
        logLine(QStringLiteral("scripted callbacks still running while the profile changes"));
}

void loadProfileText(const QByteArray& json, const QString& sourceName)
{
    waitForDeliveries();
    {
        State& s = state();
        std::lock_guard<std::recursive_mutex> lock(s.mutex);
        applyProfileLocked(s, json, sourceName);
    }
    runResetHooks();
}

void reloadProfile()
{
    waitForDeliveries();
    {
        State& s = state();
        std::lock_guard<std::recursive_mutex> lock(s.mutex);
        loadFromEnvironmentLocked(s);
    }
    runResetHooks();
}

void setScript(const QString& fn, const QJsonArray& entries)
{
    State& s = loaded();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    std::deque<QJsonValue> q;
    for (const QJsonValue& e : entries)
        q.push_back(e);
    s.script.insert(fn, q);
}

void setTraceFile(const QString& path)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.traceMutex);
    initTraceLocked(s);
    if (s.trace)
        std::fclose(s.trace);
    s.trace = nullptr;
    s.tracePath = path;
    if (!path.isEmpty())
        s.trace = std::fopen(QFile::encodeName(path).constData(), "a");
}

void addResetHook(std::function<void()> hook)
{
    State& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    s.resetHooks.push_back(std::move(hook));
}

char* heapText(const Text& t)
{
    if (!t)
        return nullptr;
    char* p = static_cast<char*>(std::malloc(t->size() + 1));
    if (p)
        std::memcpy(p, t->c_str(), t->size() + 1);
    return p;
}

const char* keptText(std::string& slot, const Text& t)
{
    if (!t)
        return nullptr;
    slot = *t;
    return slot.c_str();
}

namespace detail {

std::optional<QJsonValue> takeScript(const char* fn)
{
    State& s = loaded();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    if (s.script.isEmpty())
        return std::nullopt;
    auto it = s.script.find(QLatin1String(fn));
    if (it == s.script.end() || it->empty())
        return std::nullopt;
    QJsonValue v = it->front();
    it->pop_front();
    if (v.isString() && v.toString() == QLatin1String("run"))
        return std::nullopt;
    return v;
}

void scriptTypeMismatch(const char* fn, const char* expected, const QJsonValue& v)
{
    const QByteArray shown = QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact);
    logLine(QStringLiteral("device profile %1: key \"script.%2\": entry %3 is not %4; the call runs for real")
                .arg(profileSource(), QLatin1String(fn), QString::fromUtf8(shown.mid(1, shown.size() - 2)),
                     QLatin1String(expected)));
}

bool fillOuts(const char* fn, std::initializer_list<Arg> args, const QJsonValue& outs)
{
    Q_UNUSED(fn);
    if (outs.isUndefined())
        return true;
    if (!outs.isArray())
        return false;
    // "out" lists the values of the output parameters in order; first check every shape,
    // then fill, so a bad entry leaves the parameters untouched.
    const QJsonArray a = outs.toArray();
    int k = 0;
    for (const Arg& arg : args) {
        if (!arg.out())
            continue;
        if (k >= a.size())
            break;
        ++k;
    }
    if (k != a.size())
        return false;
    k = 0;
    for (const Arg& arg : args) {
        if (!arg.out())
            continue;
        if (!arg.out()->fromScript(a[k++]))
            return false;
    }
    return true;
}

bool traceEnabled(const char* fn)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.traceMutex);
    initTraceLocked(s);
    if (!s.trace)
        return false;
    return s.traceFrames || !isFrameFetch(fn);
}

void writeTrace(const char* fn, std::initializer_list<Arg> args, const std::string* ret)
{
    std::string line = "{\"fn\":" + jsonString(fn) + ",\"args\":[";
    bool anyOut = false;
    bool first = true;
    for (const Arg& a : args) {
        if (!first)
            line += ',';
        first = false;
        line += a.json();
        anyOut = anyOut || a.out();
    }
    line += ']';
    if (anyOut) {
        // "out" is aligned with "args": the value of each output parameter at its position.
        line += ",\"out\":[";
        first = true;
        for (const Arg& a : args) {
            if (!first)
                line += ',';
            first = false;
            line += a.out() ? a.out()->traceJson() : std::string("null");
        }
        line += ']';
    }
    if (ret)
        line += ",\"ret\":" + *ret;
    line += "}\n";

    State& s = state();
    std::lock_guard<std::mutex> lock(s.traceMutex);
    if (!s.trace)
        return;
    std::fwrite(line.data(), 1, line.size(), s.trace);
    std::fflush(s.trace);
}

static void writeLine(const std::string& line)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.traceMutex);
    initTraceLocked(s);
    if (!s.trace)
        return;
    std::fwrite(line.data(), 1, line.size(), s.trace);
    std::fflush(s.trace);
}

static std::string callbackLine(const char* fn, const std::string& argsJson)
{
    return "{\"fn\":" + jsonString(std::string(fn) + ".cb") + ",\"args\":[" + argsJson + "]}\n";
}

bool readExtras(const char* fn, const QJsonValue& entry, ScriptExtras& extras)
{
    const QJsonObject o = entry.toObject();
    const QJsonValue delay = o.value("delayMs");
    if (!delay.isUndefined()) {
        // A minute at most: a script rehearses a slow device, not a hung one.
        if (!delay.isDouble() || delay.toDouble() < 0 || delay.toDouble() > 60000) {
            logLine(QStringLiteral("device profile %1: key \"script.%2\": \"delayMs\" is not 0 to 60000")
                        .arg(profileSource(), QLatin1String(fn)));
            return false;
        }
        extras.delayMs = delay.toInt();
    }
    const QJsonValue cb = o.value("cb");
    if (!cb.isUndefined()) {
        bool ok = cb.isArray();
        for (const QJsonValue& e : cb.toArray())
            ok = ok && e.isArray();
        if (!ok) {
            logLine(QStringLiteral("device profile %1: key \"script.%2\": \"cb\" is not a list of argument lists")
                        .arg(profileSource(), QLatin1String(fn)));
            return false;
        }
        extras.callbacks = cb.toArray();
        extras.hasCallbacks = true;
    }
    return true;
}

static const CallbackArg* findCallback(std::initializer_list<Arg> args)
{
    for (const Arg& a : args)
        if (a.callback())
            return a.callback();
    return nullptr;
}

static void deliverAll(const char* fn, const CallbackArg& cb, const QJsonArray& lists)
{
    for (const QJsonValue& list : lists) {
        const QJsonArray a = list.toArray();
        const QByteArray json = QJsonDocument(a).toJson(QJsonDocument::Compact);
        writeLine(callbackLine(fn, json.mid(1, json.size() - 2).toStdString()));
        if (cb.fn && cb.deliver)
            cb.deliver(a);
    }
}

void beforeReturn(const char* fn, std::initializer_list<Arg> args, const ScriptExtras& extras)
{
    const CallbackArg* cb = findCallback(args);
    const bool now = extras.hasCallbacks && cb && cb->beforeReturn;
    if (extras.delayMs > 0 && (now || !extras.hasCallbacks || !cb))
        std::this_thread::sleep_for(std::chrono::milliseconds(extras.delayMs));
    if (extras.hasCallbacks && !cb)
        logLine(QStringLiteral("device profile %1: key \"script.%2\": \"cb\" given, but the function takes no callback")
                    .arg(profileSource(), QLatin1String(fn)));
    if (now)
        deliverAll(fn, *cb, extras.callbacks);
}

void afterReturn(const char* fn, std::initializer_list<Arg> args, const ScriptExtras& extras)
{
    const CallbackArg* cb = findCallback(args);
    if (!extras.hasCallbacks || !cb || cb->beforeReturn)
        return;
    State& s = state();
    {
        std::lock_guard<std::mutex> lock(s.deliveryMutex);
        ++s.deliveries;
    }
    // The library's own thread, as a real device's callbacks come from one.
    std::thread([name = std::string(fn), copy = *cb, extras, &s] {
        if (extras.delayMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(extras.delayMs));
        deliverAll(name.c_str(), copy, extras.callbacks);
        std::lock_guard<std::mutex> lock(s.deliveryMutex);
        --s.deliveries;
        s.deliveryDone.notify_all();
    }).detach();
}

}  // namespace detail

void traceCallback(const char* fn, std::initializer_list<Arg> args)
{
    std::string json;
    bool first = true;
    for (const Arg& a : args) {
        if (!first)
            json += ',';
        first = false;
        json += a.json();
    }
    detail::writeLine(detail::callbackLine(fn, json));
}

}  // namespace portable
