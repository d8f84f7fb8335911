#include "devicelib/portable/face/livenesswindow.h"
#include "devicelib/portable/core.h"

#include <QApplication>
#include <QCloseEvent>
#include <QImage>
#include <QLabel>
#include <QMetaObject>
#include <QPixmap>
#include <QPointer>
#include <QScreen>
#include <QThread>
#include <QVBoxLayout>
#include <QWidget>

#include <opencv2/imgproc.hpp>

namespace portable {

struct LivenessWindow::Widget : QWidget {
    explicit Widget(std::shared_ptr<std::atomic<bool>> closed) : m_closed(std::move(closed))
    {
        setWindowTitle(QStringLiteral("活体检测"));
        setAttribute(Qt::WA_DeleteOnClose);
        auto* layout = new QVBoxLayout(this);
        view = new QLabel(this);
        view->setAlignment(Qt::AlignCenter);
        view->setMinimumSize(320, 240);
        prompt = new QLabel(QStringLiteral("请眨眼"), this);
        prompt->setAlignment(Qt::AlignCenter);
        QFont f = prompt->font();
        f.setPointSize(28);
        prompt->setFont(f);
        layout->addWidget(view, 1);
        layout->addWidget(prompt);
    }

    void closeEvent(QCloseEvent* e) override
    {
        if (!finished)
            *m_closed = true;
        QWidget::closeEvent(e);
    }

    QLabel* view = nullptr;
    QLabel* prompt = nullptr;
    bool finished = false;
    std::shared_ptr<std::atomic<bool>> m_closed;
};

namespace {

// Runs f on the GUI thread and waits for it.
template <class F>
void onGuiThread(F f)
{
    QCoreApplication* app = QCoreApplication::instance();
    if (QThread::currentThread() == app->thread())
        f();
    else
        QMetaObject::invokeMethod(app, f, Qt::BlockingQueuedConnection);
}

}  // namespace

std::shared_ptr<LivenessWindow> LivenessWindow::open()
{
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) {
        logLine(QStringLiteral("DemoUIShow: no GUI in this program; the liveness check runs without its window"));
        return nullptr;
    }
    std::shared_ptr<LivenessWindow> w(new LivenessWindow);
    onGuiThread([&] {
        // The customer's screen: the smallest one of the terminal.
        QScreen* smallest = QGuiApplication::primaryScreen();
        for (QScreen* s : QGuiApplication::screens())
            if (smallest && s->geometry().width() * s->geometry().height()
                    < smallest->geometry().width() * smallest->geometry().height())
                smallest = s;
        auto* widget = new Widget(w->m_closed);   // deletes itself when closed
        if (smallest)
            widget->setGeometry(smallest->geometry());
        widget->show();
        w->m_widget = widget;
    });
    return w;
}

LivenessWindow::~LivenessWindow()
{
    finish(false);
}

void LivenessWindow::show(const cv::Mat& bgr, const cv::Rect& box)
{
    cv::Mat rgb;
    cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
    if (box.area() > 0)
        cv::rectangle(rgb, box, cv::Scalar(0, 200, 0), 2);
    const QImage image = QImage(rgb.data, rgb.cols, rgb.rows, static_cast<int>(rgb.step), QImage::Format_RGB888).copy();
    const QPointer<QWidget> widget = m_widget;
    QMetaObject::invokeMethod(QCoreApplication::instance(), [widget, image] {
        if (auto* w = static_cast<Widget*>(widget.data()))
            w->view->setPixmap(QPixmap::fromImage(image).scaled(w->view->size(), Qt::KeepAspectRatio));
    }, Qt::QueuedConnection);
}

void LivenessWindow::finish(bool live)
{
    if (!QCoreApplication::instance())
        return;
    const QPointer<QWidget> widget = m_widget;
    m_widget.clear();
    QMetaObject::invokeMethod(QCoreApplication::instance(), [widget, live] {
        if (auto* w = static_cast<Widget*>(widget.data())) {
            w->finished = true;
            w->prompt->setText(live ? QStringLiteral("检测通过") : QStringLiteral("检测未通过"));
            w->close();
        }
    }, Qt::QueuedConnection);
}

}  // namespace portable
