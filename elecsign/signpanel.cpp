#include "elecsign/signpanel.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QTabletEvent>
#include <QTouchEvent>
#include <QVBoxLayout>

#include <cmath>

namespace {
const qreal kInk = 6.0;
}

SignCanvas::SignCanvas(QWidget* parent) : QWidget(parent)
{
    setAttribute(Qt::WA_AcceptTouchEvents);
    setAttribute(Qt::WA_StaticContents);
    setMinimumSize(400, 200);
    setAutoFillBackground(true);
    setPalette(QPalette(Qt::white));
    m_clock.start();
}

void SignCanvas::clear()
{
    m_strokes.clear();
    update();
}

void SignCanvas::begin(QPointF p)
{
    m_strokes.append({{p, m_clock.elapsed()}});
    update();
}

void SignCanvas::extend(QPointF p)
{
    if (m_strokes.isEmpty())
        return begin(p);
    m_strokes.last().append({p, m_clock.elapsed()});
    update();
}

QJsonArray SignCanvas::strokes() const
{
    QJsonArray all;
    for (const auto& stroke : m_strokes) {
        QJsonArray s;
        for (const Point& p : stroke)
            s.append(QJsonArray{std::round(p.at.x()), std::round(p.at.y()), double(p.ms)});
        all.append(s);
    }
    return all;
}

static void drawStrokes(QPainter& painter, const QVector<QVector<QPointF>>& strokes)
{
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(Qt::black, kInk, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    for (const auto& s : strokes) {
        if (s.size() == 1)
            painter.drawPoint(s.first());
        else
            painter.drawPolyline(s.constData(), s.size());
    }
}

QImage SignCanvas::signature() const
{
    QVector<QVector<QPointF>> lines;
    QRectF bounds;
    for (const auto& stroke : m_strokes) {
        QVector<QPointF> l;
        for (const Point& p : stroke) {
            l << p.at;
            bounds = bounds.isNull() ? QRectF(p.at, QSizeF(1, 1)) : bounds.united(QRectF(p.at, QSizeF(1, 1)));
        }
        lines << l;
    }
    const QRect box = bounds.adjusted(-kInk * 2, -kInk * 2, kInk * 2, kInk * 2).toAlignedRect();
    QImage image(box.size().expandedTo(QSize(1, 1)), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.translate(-box.topLeft());
    drawStrokes(painter, lines);
    painter.end();
    return image.convertToFormat(QImage::Format_ARGB32);
}

void SignCanvas::paintEvent(QPaintEvent*)
{
    QVector<QVector<QPointF>> lines;
    for (const auto& stroke : m_strokes) {
        QVector<QPointF> l;
        for (const Point& p : stroke)
            l << p.at;
        lines << l;
    }
    QPainter painter(this);
    drawStrokes(painter, lines);
}

void SignCanvas::mousePressEvent(QMouseEvent* e) { begin(e->localPos()); }
void SignCanvas::mouseMoveEvent(QMouseEvent* e)
{
    if (e->buttons() & Qt::LeftButton)
        extend(e->localPos());
}

void SignCanvas::tabletEvent(QTabletEvent* e)
{
    if (e->type() == QEvent::TabletPress)
        begin(e->posF());
    else if (e->type() == QEvent::TabletMove && e->pressure() > 0)
        extend(e->posF());
    e->accept();
}

bool SignCanvas::event(QEvent* e)
{
    if (e->type() == QEvent::TouchBegin || e->type() == QEvent::TouchUpdate || e->type() == QEvent::TouchEnd) {
        const auto* t = static_cast<QTouchEvent*>(e);
        if (!t->touchPoints().isEmpty()) {
            const QTouchEvent::TouchPoint& p = t->touchPoints().first();
            if (e->type() == QEvent::TouchBegin)
                begin(p.pos());
            else
                extend(p.pos());
        }
        e->accept();
        return true;
    }
    return QWidget::event(e);
}

SignPanel::SignPanel(QWidget* parent) : QWidget(parent), m_canvas(new SignCanvas(this))
{
    setWindowTitle(QStringLiteral("请在此签名"));
    auto* title = new QLabel(QStringLiteral("请在此签名"), this);
    QFont big = title->font();
    big.setPointSize(28);
    title->setFont(big);
    title->setAlignment(Qt::AlignCenter);
    auto* clear = new QPushButton(QStringLiteral("清除"), this);
    auto* confirm = new QPushButton(QStringLiteral("确认"), this);
    for (QPushButton* b : {clear, confirm}) {
        b->setFont(big);
        b->setMinimumHeight(80);
    }
    connect(clear, &QPushButton::clicked, m_canvas, &SignCanvas::clear);
    connect(confirm, &QPushButton::clicked, this, [this] {
        if (!m_canvas->isEmpty())
            emit confirmed();
    });
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(clear);
    buttons->addWidget(confirm);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(title);
    layout->addWidget(m_canvas, 1);
    layout->addLayout(buttons);
}

void SignPanel::signGenerated()
{
    // A flowing scribble and an underline, about 300 x 120 pixels.
    m_canvas->clear();
    m_canvas->begin(QPointF(10, 70));
    for (int i = 1; i <= 60; ++i)
        m_canvas->extend(QPointF(10 + i * 5, 70 - 45 * std::sin(i * 0.35) * (1.0 - i / 120.0)));
    m_canvas->begin(QPointF(20, 115));
    m_canvas->extend(QPointF(300, 105));
}
