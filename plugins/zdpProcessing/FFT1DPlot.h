#pragma once
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtGui/QBrush>
#include <QtGui/QImage>
#include <QtGui/QPen>

class QCustomPlot;
class QCPGraph;

// e written with superscript digits (12 gives U+00B9 U+00B2).
QString get_exponent(unsigned int e);

// The amplitude plot of the 1D spectrum node: a QCustomPlot that is never
// shown and serves only to paint into the node's output pictures.
//
// Threads. QCustomPlot is a widget, and widgets may only be created on the
// GUI thread, so the plot is made in the node's constructor (the host makes
// nodes there) and only when a QApplication exists and this is its thread;
// otherwise canDraw() is false and the node passes pictures on unpainted.
// After construction the plot is used as a paint engine only: toPainter on a
// painter over a QImage, which Qt allows on any thread. replot() is never
// called, because it would draw the widget's own pixmap buffers and schedule
// a widget repaint, both GUI-thread work that the picture does not need
// (toPainter lays the plot out itself). The replot the plot queues for itself
// when it is made is taken back at once, so the GUI thread never touches the
// plot while a chain thread paints; the node serialises all other access
// with its mutex.
//
// Picture format. The output memory is an opaque BGRA picture. Painting into
// QImage::Format_ARGB32 converts every composed span to and from
// premultiplied form, five times the cost of painting into
// Format_ARGB32_Premultiplied over the same bytes; with an opaque background
// every pixel ends with alpha 255, where both forms are the same bytes. The
// premultiplied form is therefore used whenever the background brush is
// opaque (a palette with a translucent base colour falls back to ARGB32).
class CxFFT1DSpectrumPlot
{
public:
    CxFFT1DSpectrumPlot();
    ~CxFFT1DSpectrumPlot();
    CxFFT1DSpectrumPlot(const CxFFT1DSpectrumPlot&) = delete;
    CxFFT1DSpectrumPlot& operator=(const CxFFT1DSpectrumPlot&) = delete;

    bool canDraw() const { return m_plot != nullptr; }

    void setAxisYLogarithmic(bool on);
    bool axisYLogarithmic() const { return m_logarithmic; }
    void setGridXVisible(bool on);
    bool gridXVisible() const { return m_gridX; }
    void setGridYVisible(bool on);
    bool gridYVisible() const { return m_gridY; }
    // The amplitude grid is painted once per line and copied to the rows of
    // the others; off, the axis paints every line itself (tests compare the
    // two).
    void setGridRowsCopied(bool on) { m_copyGridRows = on; }

    // Fonts, pens, margins and the X axes for pictures of w x h.
    void scaleTo(int w, int h);

    // Paints the graph of values over keys, Y range [lower, upper] with the
    // given ticks (fewer than two: automatic ticks), into the w x h picture
    // of 4-byte BGRA pixels at data. False when the plot cannot draw.
    bool render(uchar* data, int w, int h, qsizetype linePitch, const QList<double>& keys,
                const QList<double>& values, double lower, double upper, const QList<double>& ticks,
                const QList<QString>& labels)
    {
        return render(data, w, h, linePitch, keys, values, lower, upper, ticks, labels, pictureFormat());
    }
    // The same with the QImage format the memory is painted as (benchmarks
    // compare the two forms).
    bool render(uchar* data, int w, int h, qsizetype linePitch, const QList<double>& keys,
                const QList<double>& values, double lower, double upper, const QList<double>& ticks,
                const QList<QString>& labels, QImage::Format format);
    QImage::Format pictureFormat() const
    {
        return m_background.color().alpha() == 255 ? QImage::Format_ARGB32_Premultiplied : QImage::Format_ARGB32;
    }

    QColor graphColour() const { return m_graphPen.color(); }
    QColor backgroundColour() const { return m_background.color(); }

private:
    class CxRowGrid;

    QCustomPlot* m_plot = nullptr;
    CxRowGrid* m_rowGrid = nullptr;
    QCPGraph* m_graph = nullptr;
    QPen m_axisPen;
    QPen m_graphPen;
    QPen m_gridPen;
    QPen m_defaultZeroLinePen;
    QBrush m_background;
    bool m_logarithmic = false;
    bool m_gridX = true;
    bool m_gridY = true;
    bool m_copyGridRows = true;
};
