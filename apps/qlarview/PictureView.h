#pragma once
#include "DisplayMapper.h"
#include "ViewFrame.h"

#include <QtWidgets/QWidget>

// One stage's pictures while frames flow. setFrame only keeps the frame and
// asks for a repaint; the paint draws the newest frame when Qt gets to it,
// rendering just the window's pixels, so frames never wait for the screen.
//
// Zoom is screen pixels per picture pixel. The view starts fitting the
// picture to the window and keeps fitting (window resized, frames of another
// size) until the user zooms or pans. Wheel: zoom about the cursor; keys
// + and - zoom about the centre, 0 fits, 1 shows 100 %. Dragging pans.
// Shift-drag or right-drag selects a rectangle of picture pixels, drawn over
// the picture and announced with roiChanged; a shift- or right-click without
// a drag clears it. A rectangle that no longer fits a new frame size is
// clipped to it (and cleared when nothing is left).
//
// Picture coordinates: pixel (x, y) covers [x, x + 1) x [y, y + 1).
class CxPictureView : public QWidget
{
    Q_OBJECT
public:
    explicit CxPictureView(QWidget* parent = nullptr);
    ~CxPictureView() override;

    void setFrame(ViewFramePtr frame);
    ViewFramePtr frame() const { return m_frame; }

    CxDisplayMapper::ExStretchMode stretchMode() const { return m_mapper.stretchMode(); }
    void setStretchMode(CxDisplayMapper::ExStretchMode mode);
    // The channel shown in grey of a multi-channel picture that is not colour.
    int channel() const { return m_mapper.channel(); }
    void setChannel(int channel);
    void setAutoPercentiles(double lowPercent, double highPercent);

    double zoom() const { return m_zoom; }
    bool isFitMode() const { return m_fit; }
    // Zooms about a window point (the window's centre when none is given),
    // leaving fit mode.
    void setZoom(double zoom, const QPointF& anchor = QPointF(-1, -1));
    void fitToWindow();

    QRect roi() const { return m_roi; }
    // Clipped to the current frame; an empty rectangle clears.
    void setRoi(const QRect& roi);

    QPointF widgetToPicture(const QPointF& p) const { return (p - m_offset) / m_zoom; }
    QPointF pictureToWidget(const QPointF& p) const { return p * m_zoom + m_offset; }

    QSize sizeHint() const override;

    static constexpr double MinZoom = 1.0 / 64;
    static constexpr double MaxZoom = 64.0;

signals:
    void roiChanged(const QRect& roi);
    // "x, y: values (cell)" for the pixel under the cursor; empty when the
    // cursor leaves the picture.
    void hoverInfo(const QString& text);
    void zoomChanged(double zoom);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    enum ExDrag { DragNone, DragPan, DragSelect };

    QSize pictureSize() const;
    void applyFit();
    void keepInView();
    void setZoomValue(double zoom);
    QRect clippedToPicture(const QRect& r) const;
    QPoint pixelAt(const QPointF& widgetPos) const;
    void updateHover();
    void emitHover(const QString& text);

    ViewFramePtr m_frame;
    CxDisplayMapper m_mapper;
    double m_zoom = 1.0;
    QPointF m_offset;  // window position of the picture's origin
    bool m_fit = true;
    QRect m_roi;

    ExDrag m_drag = DragNone;
    QPoint m_pressPos;
    QPointF m_pressOffset;
    QPoint m_selectStart;  // picture pixel
    QRect m_selecting;

    bool m_hovering = false;
    QPointF m_hoverPos;
    QString m_hoverText;
};
