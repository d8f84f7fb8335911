// CaptureImgThread: the one thread that owns the document camera's live video. Commands queue
// start and stop operations and return at once; the thread runs them with the device library,
// answers on sig_msg, and while a camera is open fetches frames and emits each as the bare
// base64 of a JPEG. Its lock guards only the queue and the camera code, never a library call,
// an encode, an emit or a wait, so no command waits for the camera.
#pragma once

#include <QByteArray>
#include <QThread>

#include <memory>

class CaptureImgThread : public QThread {
    Q_OBJECT
public:
    enum enumCameraOPeration {
        OpClose = 0,
        OpStartPlay = 1,
        OpStartPlayRotate = 2,
        OpStartPlay2 = 3,
        OpStartPlay3 = 4,
        OpStartPlay5 = 5,
        OpStartPlay6 = 6,
        OpStartPlay8 = 7,
        OpStartPlay9 = 8,
        OpStartPlayOpen = 9,
    };

    static CaptureImgThread* instance();
    ~CaptureImgThread() override;

    void openCamera(int code);
    void closeCamera();
    void silenceClose();
    void destory();
    void setPause(bool paused);

    void vSetPreviewEnable(bool enabled);
    bool bGetPreviewEnable();
    void vSetPreViewSize(int w, int h);
    void vSetZoomFactor(int percent);
    void vZoomOut();
    void vZoomIn();
    void vZoomOriginal();

signals:
    void sig_msg(QByteArray);

protected:
    void run() override;

private:
    CaptureImgThread();
    // Read by tests (CaptureImgThreadTestAccess): the pushed frame size and the open camera.
    int previewWidth() const;
    int previewHeight() const;
    int currentCamera() const;
    int queuedOperations() const;
    // The pauses of the start retries, of a failed frame and of the recovery, in milliseconds
    // (500, 1000, 1000, 3000). Tests shorten them; nothing else changes them.
    static void setDelays(int firstRetryMs, int secondRetryMs, int failureMs, int recoveryMs);
    struct Private;
    std::unique_ptr<Private> d;
    friend class CaptureImgThreadTestAccess;
};
