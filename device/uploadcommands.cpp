// Image upload commands. The transfer is the device library's; these read the page's parts,
// call it and frame the server's answer.
//
// sUpLoadImage, sUpLoadImageEx2 and bUpLoadImage hold the dispatcher for the whole transfer:
// pages written for them expect their answer before anything else. sUpLoadImageEx5 uploads on
// the global thread pool while the dispatcher keeps serving pages, optionally behind a progress
// dialog and followed by a result box on the terminal's screen.
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <QDebug>
#include <QDialog>
#include <QEventLoop>
#include <QLabel>
#include <QMessageBox>
#include <QThreadPool>
#include <QTimer>
#include <QVBoxLayout>

#include <atomic>
#include <cstdlib>
#include <memory>

namespace {

// A switch of sUpLoadImageEx5: "true" anywhere in the part, in any case, or a non-zero number.
bool switchOn(const QString& part)
{
    return part.contains(QLatin1String("true"), Qt::CaseInsensitive) || part.toInt() != 0;
}

QString framedHeapText(const QString& name, char* text)
{
    const QString r = reply::send(reply::framed(name, text ? QString::fromUtf8(text) : QString()));
    std::free(text);
    return r;
}

// sUpLoadImage(url,file,fields,fieldName,deleteAfter): the library takes deleteAfter before
// fieldName. sUpLoadImageEx6 reads a sixth part and passes it nowhere.
QString uploadImage(const QString& name, const QString& args)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedFalse(name));
    // A file outside the roots is never sent anywhere; the page sees what no answer looks like.
    if (!pathpolicy::allowed(a.text(1), name))
        return reply::send(reply::framedEmpty(name));
    return framedHeapText(name, ::sUpLoadImage(a.utf8(0).constData(), a.utf8(1).constData(), a.utf8(2).constData(),
                                               a.toFlag(4), a.utf8(3).constData()));
}

// What the pool task and the dispatcher share for one sUpLoadImageEx5.
struct Ex5Job {
    QString reply;                   // written by the task before it sets done
    std::atomic<bool> success{false};
    std::atomic<bool> done{false};   // the reply is complete
    std::atomic<bool> running{true};
};

// The progress dialog: only the end of the upload closes it, not the Escape key.
class ProgressDialog : public QDialog {
public:
    explicit ProgressDialog(std::shared_ptr<Ex5Job> job) : m_job(std::move(job))
    {
        auto* layout = new QVBoxLayout(this);
        layout->addWidget(new QLabel(QStringLiteral("图片上传中。。。"), this));
        adjustSize();
        setWindowFlags(windowFlags() | Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    }
    void reject() override
    {
        if (m_job->done)
            QDialog::reject();
    }

private:
    std::shared_ptr<Ex5Job> m_job;
};

}  // namespace

QString MessageRun::sUpLoadImage_callback(QString name, QString args, MessageRun*)
{
    return uploadImage(name, args);
}

QString MessageRun::sUpLoadImageEx6_callback(QString name, QString args, MessageRun*)
{
    return uploadImage(name, args);
}

QString MessageRun::sUpLoadImageEx2_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 4)
        return reply::send(reply::framedFalse(name));
    if (!pathpolicy::allowed(a.text(1), name))
        return reply::send(reply::framedEmpty(name));
    return framedHeapText(name, ::sUpLoadImageEx2(a.utf8(0).constData(), a.utf8(1).constData(), a.toLong(2),
                                                  a.utf8(3).constData()));
}

QString MessageRun::bUpLoadImage_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 4 || !pathpolicy::allowed(a.text(1), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(
        name, ::bUpLoadImage(a.utf8(0).constData(), a.utf8(1).constData(), a.toLong(2), a.utf8(3).constData())));
}

// sUpLoadImageEx5(url,file,seconds,fields,switch,token,fieldName,showProgress,showResult)
QString MessageRun::sUpLoadImageEx5_callback(QString name, QString args, MessageRun* self)
{
    const QStringList parts = args.split(QLatin1Char(','));
    auto job = std::make_shared<Ex5Job>();

    QThreadPool::globalInstance()->start([job, args, name, self] {
        const Args a = Args::split(args);
        if (a.count() >= 9 && !pathpolicy::allowed(a.text(1), name)) {
            job->reply = reply::framedEmpty(name);
        } else if (a.count() >= 9) {
            const QByteArray token = a.toInt(4) == 0 ? a.utf8(5) : QByteArray();
            QString out;
            job->success = ::sUpLoadImageEx5(a.utf8(0).constData(), a.utf8(1).constData(), a.toLong(2),
                                             a.utf8(3).constData(), token.constData(), a.utf8(6).constData(), &out);
            job->reply = reply::framed(name, out);
        } else {
            job->reply = reply::framedFalse(name);
        }
        job->done = true;
        emit self->sig_sync_close();
        job->running = false;
    });

    // A completion signalled before the dialog or the loop listened is caught by this timer
    // within a second.
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, self, [job, self] {
        if (!job->running)
            emit self->sig_sync_close();
    });

    if (parts.size() > 7 && switchOn(parts.at(7))) {
        ProgressDialog dialog(job);
        QObject::connect(self, &MessageRun::sig_sync_close, &dialog, &ProgressDialog::reject);
        dialog.setModal(true);
        timer.start(1000);
        qInfo().noquote() << "upload: progress dialog shown";
        dialog.exec();
        qInfo().noquote() << "upload: progress dialog closed";
    } else {
        QEventLoop loop;
        QObject::connect(self, &MessageRun::sig_sync_close, &loop, [job, &loop] {
            if (job->done)
                loop.quit();
        });
        timer.start(1000);
        if (!job->done)
            loop.exec();
    }

    // The reply goes to the page that sent the latest command, which may not be the asking one.
    const QString text = reply::send(job->reply);

    if (parts.size() > 8 && switchOn(parts.at(8))) {
        QMessageBox box;
        box.setIcon(QMessageBox::NoIcon);
        box.setWindowTitle(QStringLiteral("提示信息"));
        box.setText(job->success ? QStringLiteral("   上传成功!     ") : QStringLiteral("   上传失败!     "));
        box.setWindowFlags(Qt::Dialog | Qt::WindowStaysOnTopHint);
        box.setModal(true);
        qInfo().noquote() << "upload: result box:" << box.text();
        box.exec();
    }
    timer.stop();
    return text;
}

void MessageRun::http_reply_slot(int retCode, QString text)
{
    Q_UNUSED(retCode);
    send_msg(reply::framed(QStringLiteral("sUpLoadImageEx2"), text));
}
