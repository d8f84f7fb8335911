// The liveness window DemoUIShow puts on the customer's screen (the smallest one): the live
// view with the face box and the prompt "请眨眼". A handle any thread may hold; the widget
// itself lives on the GUI thread.
#pragma once

#include <QPointer>
#include <QWidget>

#include <opencv2/core.hpp>

#include <atomic>
#include <memory>

namespace portable {

class LivenessWindow {
public:
    // Opens the window; null when the program has no GUI (the check then runs without one).
    static std::shared_ptr<LivenessWindow> open();
    ~LivenessWindow();

    // From any thread: shows a frame (the box drawn when not empty).
    void show(const cv::Mat& bgr, const cv::Rect& box);
    // From any thread: shows the outcome and closes the window.
    void finish(bool live);
    bool closedByCustomer() const { return *m_closed; }

    struct Widget;

private:
    LivenessWindow() = default;
    // Owned by the GUI thread, which deletes it when it closes; a guarded pointer, because the
    // customer may close it at any time.
    QPointer<QWidget> m_widget;
    std::shared_ptr<std::atomic<bool>> m_closed = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace portable
