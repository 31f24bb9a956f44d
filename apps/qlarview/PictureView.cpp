#include "PictureView.h"

#include "PictureMeasure.h"

#include <QtGui/QKeyEvent>
#include <QtGui/QMouseEvent>
#include <QtGui/QPainter>
#include <QtGui/QRegion>
#include <QtGui/QWheelEvent>

#include <climits>
#include <cmath>

namespace {

const QColor Background(48, 48, 48);
constexpr double WheelStep = 1.25;
constexpr double KeyStep = 1.5;
// Window pixels of the picture that panning always leaves in view.
constexpr double KeepVisible = 32.0;
// A press that moves less than this is a click, not a drag.
constexpr int ClickSlop = 3;

} // namespace

CxPictureView::CxPictureView(QWidget* parent) : QWidget(parent)
{
    m_mapper.setBackground(Background);
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setCursor(Qt::CrossCursor);
}

CxPictureView::~CxPictureView() = default;

QSize CxPictureView::sizeHint() const { return QSize(640, 480); }

QSize CxPictureView::pictureSize() const
{
    if (!m_frame)
        return QSize();
    return QSize(int(std::min<quint32>(m_frame->pic.width, INT_MAX)), int(std::min<quint32>(m_frame->pic.height, INT_MAX)));
}

void CxPictureView::setFrame(ViewFramePtr frame)
{
    const QSize before = pictureSize();
    m_frame = std::move(frame);
    const QSize after = pictureSize();
    if (after != before) {
        if (m_fit)
            applyFit();
        else
            keepInView();
        if (!m_roi.isEmpty()) {
            const QRect clipped = clippedToPicture(m_roi);
            if (clipped != m_roi) {
                m_roi = clipped;
                emit roiChanged(m_roi);
            }
        }
    }
    updateHover();
    update();
}

void CxPictureView::setStretchMode(CxDisplayMapper::ExStretchMode mode)
{
    m_mapper.setStretchMode(mode);
    update();
}

void CxPictureView::setChannel(int channel)
{
    m_mapper.setChannel(channel);
    update();
}

void CxPictureView::setAutoPercentiles(double lowPercent, double highPercent)
{
    m_mapper.setAutoPercentiles(lowPercent, highPercent);
    update();
}

void CxPictureView::setZoomValue(double zoom)
{
    zoom = qBound(MinZoom, zoom, MaxZoom);
    if (zoom != m_zoom) {
        m_zoom = zoom;
        emit zoomChanged(m_zoom);
    }
}

void CxPictureView::setZoom(double zoom, const QPointF& anchor)
{
    const QPointF at = anchor.x() < 0 || anchor.y() < 0 ? QPointF(width() / 2.0, height() / 2.0) : anchor;
    const QPointF under = widgetToPicture(at);
    m_fit = false;
    setZoomValue(zoom);
    m_offset = at - under * m_zoom;
    keepInView();
    updateHover();
    update();
}

void CxPictureView::fitToWindow()
{
    m_fit = true;
    applyFit();
    updateHover();
    update();
}

void CxPictureView::applyFit()
{
    const QSize pic = pictureSize();
    if (pic.isEmpty() || width() <= 0 || height() <= 0)
        return;
    setZoomValue(std::min(double(width()) / pic.width(), double(height()) / pic.height()));
    m_offset = QPointF((width() - pic.width() * m_zoom) / 2.0, (height() - pic.height() * m_zoom) / 2.0);
}

void CxPictureView::keepInView()
{
    const QSize pic = pictureSize();
    if (pic.isEmpty())
        return;
    const double w = pic.width() * m_zoom, h = pic.height() * m_zoom;
    const double keepX = std::min(KeepVisible, w), keepY = std::min(KeepVisible, h);
    m_offset.setX(qBound(keepX - w, m_offset.x(), std::max(keepX - w, width() - keepX)));
    m_offset.setY(qBound(keepY - h, m_offset.y(), std::max(keepY - h, height() - keepY)));
}

QRect CxPictureView::clippedToPicture(const QRect& r) const
{
    const QRect clipped = r.normalized() & QRect(QPoint(0, 0), pictureSize());
    return clipped.isEmpty() ? QRect() : clipped;
}

void CxPictureView::setRoi(const QRect& roi)
{
    const QRect r = clippedToPicture(roi);
    if (r == m_roi)
        return;
    m_roi = r;
    update();
    emit roiChanged(m_roi);
}

QPoint CxPictureView::pixelAt(const QPointF& widgetPos) const
{
    const QPointF p = widgetToPicture(widgetPos);
    const double x = qBound(double(INT_MIN), std::floor(p.x()), double(INT_MAX));
    const double y = qBound(double(INT_MIN), std::floor(p.y()), double(INT_MAX));
    return QPoint(int(x), int(y));
}

void CxPictureView::emitHover(const QString& text)
{
    if (text == m_hoverText)
        return;
    m_hoverText = text;
    emit hoverInfo(text);
}

void CxPictureView::updateHover()
{
    if (!m_hovering || !m_frame)
        return emitHover(QString());
    emitHover(PictureMeasure::hoverText(*m_frame, pixelAt(m_hoverPos)));
}

void CxPictureView::paintEvent(QPaintEvent* event)
{
    QPainter painter(this);
    const QSize pic = pictureSize();
    if (!m_frame || pic.isEmpty()) {
        painter.fillRect(event->rect(), Background);
        return;
    }

    // Whole window pixels that show any of the picture: the source rectangle
    // is worked out from them, so the picture lands exactly where the mouse
    // mapping says it is.
    const QRectF onWindow(m_offset, QSizeF(pic.width() * m_zoom, pic.height() * m_zoom));
    const QRect target = onWindow.toAlignedRect() & event->rect() & rect();
    const qreal dpr = devicePixelRatioF();
    // The picture covers its own part, so the background goes only beside
    // it: under it too would write every shown pixel twice. At a fractional
    // ratio the picture's rounded device size may leave a sliver, so there
    // the background goes everywhere.
    if (dpr == std::floor(dpr))
        for (const QRect& r : QRegion(event->rect()).subtracted(target))
            painter.fillRect(r, Background);
    else
        painter.fillRect(event->rect(), Background);
    if (!target.isEmpty()) {
        const QSize device(qRound(target.width() * dpr), qRound(target.height() * dpr));
        const QRectF source(widgetToPicture(target.topLeft()), QSizeF(target.width(), target.height()) / m_zoom);
        QImage image = m_mapper.render(*m_frame, source, device);
        image.setDevicePixelRatio(dpr);
        painter.drawImage(target.topLeft(), image);
    }

    const QRect shown = m_drag == DragSelect ? m_selecting : m_roi;
    if (!shown.isEmpty()) {
        const QRectF r(pictureToWidget(shown.topLeft()), pictureToWidget(shown.bottomRight() + QPoint(1, 1)));
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(Qt::black, 1));
        painter.drawRect(r);
        painter.setPen(QPen(Qt::yellow, 1, Qt::DashLine));
        painter.drawRect(r);
    }
}

void CxPictureView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    if (m_fit)
        applyFit();
    else
        keepInView();
}

void CxPictureView::wheelEvent(QWheelEvent* event)
{
    const double steps = event->angleDelta().y() / 120.0;
    if (steps == 0.0 || !m_frame)
        return QWidget::wheelEvent(event);
    setZoom(m_zoom * std::pow(WheelStep, steps), event->position());
    event->accept();
}

void CxPictureView::keyPressEvent(QKeyEvent* event)
{
    switch (event->key()) {
    case Qt::Key_Plus:
    case Qt::Key_Equal:
        setZoom(m_zoom * KeyStep);
        break;
    case Qt::Key_Minus:
        setZoom(m_zoom / KeyStep);
        break;
    case Qt::Key_0:
        fitToWindow();
        break;
    case Qt::Key_1:
        setZoom(1.0);
        break;
    default:
        return QWidget::keyPressEvent(event);
    }
    event->accept();
}

void CxPictureView::mousePressEvent(QMouseEvent* event)
{
    m_pressPos = event->position().toPoint();
    const bool select = event->button() == Qt::RightButton
        || (event->button() == Qt::LeftButton && (event->modifiers() & Qt::ShiftModifier));
    if (select) {
        m_drag = DragSelect;
        m_selectStart = pixelAt(event->position());
        m_selecting = QRect();
    } else if (event->button() == Qt::LeftButton) {
        m_drag = DragPan;
        m_pressOffset = m_offset;
    } else {
        return QWidget::mousePressEvent(event);
    }
    event->accept();
}

void CxPictureView::mouseMoveEvent(QMouseEvent* event)
{
    m_hovering = true;
    m_hoverPos = event->position();
    if (m_drag == DragPan) {
        m_fit = false;
        m_offset = m_pressOffset + (event->position() - QPointF(m_pressPos));
        keepInView();
        update();
    } else if (m_drag == DragSelect) {
        m_selecting = clippedToPicture(QRect(m_selectStart, pixelAt(event->position())).normalized());
        update();
    }
    updateHover();
}

void CxPictureView::mouseReleaseEvent(QMouseEvent* event)
{
    const ExDrag drag = m_drag;
    m_drag = DragNone;
    if (drag == DragSelect) {
        const bool click = (event->position().toPoint() - m_pressPos).manhattanLength() < ClickSlop;
        setRoi(click ? QRect() : m_selecting);
        m_selecting = QRect();
        update();
    }
    event->accept();
}

void CxPictureView::leaveEvent(QEvent* event)
{
    m_hovering = false;
    updateHover();
    QWidget::leaveEvent(event);
}
