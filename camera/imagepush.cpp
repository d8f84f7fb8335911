// The timer-driven frame push of the dispatcher. Its timer is never started (the capture
// thread pushes the preview), but the path stays ready and correct.
#include "camera/mat2base64.h"
#include "devicelib/doccamera.h"
#include "dispatch/messagerun.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

void MessageRun::OnSengImgMessage()
{
    if (!m_imagePush)
        return;
    cv::Mat frame;
    if (!getVideoFrameMat(frame) || frame.empty())
        return;
    cv::Mat scaled;
    cv::resize(frame, scaled, cv::Size(800, 600), 0, 0, cv::INTER_NEAREST);
    send_msg(QString::fromStdString(Mat2Base64(scaled, "JPG")));
}
