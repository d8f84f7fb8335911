// The signing panel on the pad screen: "请在此签名", a canvas for finger, pen or mouse, and the
// clear and confirm buttons.
#pragma once

#include <QElapsedTimer>
#include <QImage>
#include <QJsonArray>
#include <QPointF>
#include <QVector>
#include <QWidget>

class QTabletEvent;

class SignCanvas : public QWidget {
    Q_OBJECT
public:
    explicit SignCanvas(QWidget* parent = nullptr);
    void clear();
    void begin(QPointF p);
    void extend(QPointF p);
    bool isEmpty() const { return m_strokes.isEmpty(); }
    // Each stroke as [[x, y, ms], ...], ms since the panel opened.
    QJsonArray strokes() const;
    // The ink on a transparent background, cut to the strokes with a small margin.
    QImage signature() const;

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* e) override;
    void mouseMoveEvent(QMouseEvent* e) override;
    void tabletEvent(QTabletEvent* e) override;
    bool event(QEvent* e) override;

private:
    struct Point {
        QPointF at;
        qint64 ms;
    };
    QVector<QVector<Point>> m_strokes;
    QElapsedTimer m_clock;
};

class SignPanel : public QWidget {
    Q_OBJECT
public:
    explicit SignPanel(QWidget* parent = nullptr);
    // Signs with a generated signature, for unattended runs.
    void signGenerated();
    QJsonArray strokes() const { return m_canvas->strokes(); }
    QImage signature() const { return m_canvas->signature(); }

signals:
    void confirmed();

private:
    SignCanvas* m_canvas;
};
