// The core every module of the portable device library shares:
//  - the device profile (which simulated devices are present and what they answer),
//  - scripted results (per function, a list of results consumed one call at a time),
//  - the call trace (one JSON line per call, when DEVICE_TRACE names a file).
//
// Every C entry point is one line through traced(), so none can forget the script or the
// trace:
//
//   extern "C" bool bSaveJPG(const char* dir, const char* name)
//   {
//       return traced<bool>("bSaveJPG", {dir, name}, [&] { return camera().save(...); });
//   }
#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <cmath>
#include <functional>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

class QImage;
namespace cv { class Mat; }

namespace portable {

// A text result: std::nullopt stands for a NULL pointer.
using Text = std::optional<std::string>;

// ---------------------------------------------------------------------------------------------
// A scripted number as T. A whole-number T takes the value cut to its range: converting a
// double beyond the range (a profile's 1e300) is undefined and gave arbitrary values.
template <class T>
T scriptNumber(double d)
{
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(d);
    } else {
        if (std::isnan(d))
            return T(0);
        if (d <= static_cast<double>(std::numeric_limits<T>::lowest()))
            return std::numeric_limits<T>::lowest();
        if (d >= static_cast<double>(std::numeric_limits<T>::max()))
            return std::numeric_limits<T>::max();
        return static_cast<T>(d);
    }
}

// ---------------------------------------------------------------------------------------------
// Output parameters: traced as "<out>" in "args", their value after the call in "out".
class Out {
public:
    virtual ~Out() = default;
    virtual std::string traceJson() const = 0;
    // Fills the parameter from a scripted value; false when the value has the wrong shape.
    virtual bool fromScript(const QJsonValue& v) = 0;
};

template <class T>
class OutNumber final : public Out {
public:
    explicit OutNumber(T* p) : m_p(p) {}
    std::string traceJson() const override { return m_p ? std::to_string(*m_p) : "null"; }
    bool fromScript(const QJsonValue& v) override
    {
        if (!v.isDouble())
            return false;
        if (m_p)
            *m_p = scriptNumber<T>(v.toDouble());
        return true;
    }

private:
    T* m_p;
};

class OutImage final : public Out {
public:
    explicit OutImage(QImage* p) : m_p(p) {}
    std::string traceJson() const override;
    bool fromScript(const QJsonValue& v) override;   // {"w":..,"h":..} gives a grey image

private:
    QImage* m_p;
};

class OutMat final : public Out {
public:
    explicit OutMat(cv::Mat* p) : m_p(p) {}
    std::string traceJson() const override;
    bool fromScript(const QJsonValue& v) override;   // {"w":..,"h":..} gives a grey BGR matrix

private:
    cv::Mat* m_p;
};

class OutSizes final : public Out {
public:
    explicit OutSizes(std::vector<std::pair<double, double>>* p) : m_p(p) {}
    std::string traceJson() const override;           // [[w,h],...]
    bool fromScript(const QJsonValue& v) override;   // [[w,h],...]

private:
    std::vector<std::pair<double, double>>* m_p;
};

// A function pointer argument, traced as "<fn>".
struct FnArg {
    const void* p;
};

// An object pointer argument (an observer), traced as "<object>".
struct ObjectArg {
    const void* p;
};

// A caller's context pointer, traced as "<ptr>".
struct PtrArg {
    const void* p;
};

// A byte buffer (a feature, a template), traced as its hex.
struct BytesArg {
    const void* p;
    size_t n;
};

// A callback the library will call, traced as "<fn>". A scripted entry {"cb": [[...], ...]}
// hands each inner list to deliver() instead of the real work: after the call returned, on a
// thread of the library, or before it returns when beforeReturn is set (a function that calls
// back before returning). Each delivery is traced as "<function>.cb" with the list as its args.
struct CallbackArg {
    const void* fn;
    std::function<void(const QJsonArray&)> deliver;
    bool beforeReturn = false;
};

// ---------------------------------------------------------------------------------------------
// One argument as the trace shows it.
class Arg {
public:
    Arg(const char* s);   // NOLINT: implicit on purpose, so call sites read {dir, name}
    Arg(bool b);
    Arg(double d);
    Arg(FnArg f);
    Arg(ObjectArg o);
    Arg(PtrArg p);
    Arg(BytesArg b);
    Arg(const CallbackArg& cb);
    Arg(Out& out);
    template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    Arg(T v) : m_json(std::to_string(v))
    {
    }

    const std::string& json() const { return m_json; }
    Out* out() const { return m_out; }
    const CallbackArg* callback() const { return m_cb; }

private:
    std::string m_json;
    Out* m_out = nullptr;
    const CallbackArg* m_cb = nullptr;
};

// Writes the trace line of one delivered callback: {"fn":"<fn>.cb","args":[...]}.
void traceCallback(const char* fn, std::initializer_list<Arg> args);

// JSON text of a byte string, as passed: valid UTF-8 is kept, each invalid byte becomes \xNN.
std::string jsonString(const char* s);
std::string jsonString(const std::string& s);

// The caller's QString as an output parameter: traced as the text it holds after the call,
// scripted with a string.
class OutQString final : public Out {
public:
    explicit OutQString(QString* p) : m_p(p) {}
    std::string traceJson() const override { return m_p ? jsonString(m_p->toStdString()) : "null"; }
    bool fromScript(const QJsonValue& v) override
    {
        if (!v.isString())
            return false;
        if (m_p)
            *m_p = v.toString();
        return true;
    }
    void set(const QString& text)
    {
        if (m_p)
            *m_p = text;
    }

private:
    QString* m_p;
};

// ---------------------------------------------------------------------------------------------
// Device profile.

// The profile in force (built-in defaults overlaid with the profile file), loaded on first use.
QJsonObject profile();
// Where the profile came from ("built-in defaults" when no file was read).
QString profileSource();
// A value of the profile by its dotted path ("camera.previewWidth"). When the key is absent the
// default is returned; when it has another type than the default, a log line names the file and
// the key and the default is returned.
QJsonValue profileValue(const QString& path, const QJsonValue& fallback);
QString profileText(const QString& path, const QString& fallback);
bool profileFlag(const QString& path, bool fallback);
double profileNumber(const QString& path, double fallback);

// The application directory: beside the running program.
QString applicationDir();

// Writes one line to the process log (the server's log file), prefixed "devicelib: ".
void logLine(const QString& line);

// ---------------------------------------------------------------------------------------------
// For tests and tools: replace the profile (JSON text; empty = built-in defaults only), which
// also reloads its script and runs every module's reset hook.
void loadProfileText(const QByteArray& json, const QString& sourceName = QStringLiteral("<test>"));
// Reload from DEVICE_PROFILE / the application directory, as at start.
void reloadProfile();
// Script results for one function (replaces what was left of its list).
void setScript(const QString& fn, const QJsonArray& entries);
// Trace to this file from now on (empty: no trace).
void setTraceFile(const QString& path);
// Modules register how to forget their state when the profile is replaced.
void addResetHook(std::function<void()> hook);

// ---------------------------------------------------------------------------------------------
namespace detail {

// Takes the next script entry of fn, if any. Entries that say "run" come back as nullopt.
std::optional<QJsonValue> takeScript(const char* fn);
void scriptTypeMismatch(const char* fn, const char* expected, const QJsonValue& v);
bool fillOuts(const char* fn, std::initializer_list<Arg> args, const QJsonValue& outs);
bool traceEnabled(const char* fn);
void writeTrace(const char* fn, std::initializer_list<Arg> args, const std::string* ret);

// What a scripted entry asks beyond its result: a delay and callback deliveries.
struct ScriptExtras {
    int delayMs = 0;
    QJsonArray callbacks;
    bool hasCallbacks = false;
};
// Reads "delayMs" and "cb" of an object entry; false (with a log line) when they are malformed.
bool readExtras(const char* fn, const QJsonValue& entry, ScriptExtras& extras);
// Before the result is traced: waits the delay, and delivers the callbacks that must arrive
// before the call returns.
void beforeReturn(const char* fn, std::initializer_list<Arg> args, const ScriptExtras& extras);
// After the result is traced: starts the delivery of the callbacks that arrive later.
void afterReturn(const char* fn, std::initializer_list<Arg> args, const ScriptExtras& extras);

template <class R>
bool fromScript(const QJsonValue& v, R& out)
{
    if constexpr (std::is_same_v<R, bool>) {
        if (!v.isBool())
            return false;
        out = v.toBool();
        return true;
    } else if constexpr (std::is_integral_v<R>) {
        if (!v.isDouble())
            return false;
        out = scriptNumber<R>(v.toDouble());
        return true;
    } else if constexpr (std::is_same_v<R, Text>) {
        if (v.isNull()) {
            out = std::nullopt;
            return true;
        }
        if (!v.isString())
            return false;
        out = v.toString().toStdString();
        return true;
    } else {
        static_assert(std::is_void_v<R>, "unsupported result type");
        return false;
    }
}

template <class R>
std::string toTrace(const R& r)
{
    if constexpr (std::is_same_v<R, bool>)
        return r ? "true" : "false";
    else if constexpr (std::is_integral_v<R>)
        return std::to_string(r);
    else
        return r ? jsonString(*r) : std::string("null");
}

template <class R>
const char* typeName()
{
    if constexpr (std::is_same_v<R, bool>)
        return "boolean";
    else if constexpr (std::is_integral_v<R>)
        return "number";
    else
        return "string or null";
}

}  // namespace detail

// Runs one device-library call: a scripted result when one is queued for fn, else the real
// work; then appends the trace line. R is void, bool, an integer type or Text.
template <class R, class F>
R traced(const char* fn, std::initializer_list<Arg> args, F&& real)
{
    std::optional<QJsonValue> entry = detail::takeScript(fn);
    if constexpr (std::is_void_v<R>) {
        bool scripted = false;
        detail::ScriptExtras extras;
        if (entry) {
            // A void call takes null, or {"out":[...]} to fill its output parameters, with
            // "cb" and "delayMs" as for any call.
            if (entry->isNull())
                scripted = true;
            else if (entry->isObject() && detail::readExtras(fn, *entry, extras)
                     && detail::fillOuts(fn, args, entry->toObject().value("out")))
                scripted = true;
            else
                detail::scriptTypeMismatch(fn, "null or an object with \"out\", \"cb\" or \"delayMs\"", *entry);
        }
        if (!scripted)
            real();
        else
            detail::beforeReturn(fn, args, extras);
        if (detail::traceEnabled(fn))
            detail::writeTrace(fn, args, nullptr);
        if (scripted)
            detail::afterReturn(fn, args, extras);
    } else {
        R result{};
        bool scripted = false;
        detail::ScriptExtras extras;
        if (entry) {
            QJsonValue ret = *entry;
            bool outsOk = true;
            if (entry->isObject()) {
                const QJsonObject o = entry->toObject();
                ret = o.value("ret");
                outsOk = detail::readExtras(fn, *entry, extras) && detail::fillOuts(fn, args, o.value("out"));
            }
            if (outsOk && detail::fromScript(ret, result))
                scripted = true;
            else
                detail::scriptTypeMismatch(fn, detail::typeName<R>(), *entry);
        }
        if (!scripted)
            result = real();
        else
            detail::beforeReturn(fn, args, extras);
        if (detail::traceEnabled(fn)) {
            const std::string r = detail::toTrace(result);
            detail::writeTrace(fn, args, &r);
        }
        if (scripted)
            detail::afterReturn(fn, args, extras);
        return result;
    }
}

// A heap text for the caller to free(); NULL for std::nullopt.
char* heapText(const Text& t);
// A text the library keeps (valid until the same slot is used again on this thread).
const char* keptText(std::string& slot, const Text& t);

}  // namespace portable
