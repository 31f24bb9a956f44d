#include "FFT1DPlot.h"
#include "FFT1DCnbl.h"

#include <qcustomplot.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLocale>
#include <QtCore/QThread>
#include <QtGui/QGuiApplication>
#include <QtGui/QImage>
#include <QtGui/QPalette>
#include <QtWidgets/QApplication>

#include <cmath>

namespace {

// A hang guard, not a design limit: a linear axis up to 4096 steps of the
// largest step covers every amplitude a 16-bit picture can produce, while a
// nonsense range (infinite, or a huge fixed maximum loaded from a document)
// must not spin for ever building ticks nobody can read.
constexpr int kMaxTicks = 4096;

const QChar kSuperscript[10] = {QChar(0x2070), QChar(0x00B9), QChar(0x00B2), QChar(0x00B3), QChar(0x2074),
                                QChar(0x2075), QChar(0x2076), QChar(0x2077), QChar(0x2078), QChar(0x2079)};

double floorBelow2p52(double v)
{
    return std::fabs(v) < 4503599627370496.0 ? std::floor(v) : v;
}

bool widgetsAllowedHere()
{
    const auto* app = qobject_cast<QApplication*>(QCoreApplication::instance());
    return app && QThread::currentThread() == app->thread();
}

} // namespace

// The horizontal grid of the amplitude axis, drawn in place of the axis's own
// grid with the same pixels. That grid draws each line with the dotted pen
// afresh, dot by dot, and a 16-bit spectrum puts some 80 lines on the axis:
// most of the plot's time. The lines are not antialiased, so they lie on
// whole pixel rows and share one dot pattern from the same left to the same
// right end; one line is drawn into a strip once and copied to every row.
// Where the axis would draw a zero line in another pen, the axis's own grid
// draws instead.
class CxFFT1DSpectrumPlot::CxRowGrid : public QCPLayerable
{
public:
    explicit CxRowGrid(QCustomPlot* plot) : QCPLayerable(plot, QStringLiteral("grid")) {}

    // Whether the strips can stand in for the axis's grid this time.
    bool covers(const QCPAxis* axis) const
    {
        const QCPGrid* grid = axis->grid();
        const QCPRange range = axis->range();
        return !grid->subGridVisible() && !grid->antialiased()
               && !mParentPlot->antialiasedElements().testFlag(QCP::aeGrid)
               && !(grid->zeroLinePen().style() != Qt::NoPen && range.lower < 0 && range.upper > 0);
    }

protected:
    void applyDefaultAntialiasingHint(QCPPainter* painter) const override
    {
        applyAntialiasingHint(painter, false, QCP::aeGrid);
    }

    void draw(QCPPainter* painter) override
    {
        const QCPAxis* axis = mParentPlot->yAxis;
        const QRect rect = axis->axisRect()->rect();
        const QPen pen = axis->grid()->pen();
        const QPaintDevice* device = painter->device();
        if (!device)
            return;
        // Rows above and below the line that a wide pen may reach.
        const int reach = int(std::ceil(pen.widthF())) + 2;
        const QSize size(device->width(), 2 * reach + 1);
        if (m_strip.size() != size || m_pen != pen || m_left != rect.left() || m_right != rect.right()
            || m_modes != painter->modes()) {
            m_strip = QImage(size, QImage::Format_ARGB32_Premultiplied);
            m_strip.fill(Qt::transparent);
            QCPPainter strip(&m_strip);
            strip.setModes(painter->modes());
            applyDefaultAntialiasingHint(&strip);
            strip.setPen(pen);
            strip.drawLine(QLineF(rect.left(), reach, rect.right(), reach));
            strip.end();
            m_pen = pen;
            m_left = rect.left();
            m_right = rect.right();
            m_modes = painter->modes();
        }
        for (double tick : axis->tickVector()) {
            const double t = axis->coordToPixel(tick);
            if (!std::isfinite(t) || std::fabs(t) > 1e9)
                continue;
            // The row the axis's own unantialiased line lands on.
            const int row = QLineF(rect.left(), t, rect.right(), t).toLine().y1();
            painter->drawImage(QPoint(0, row - reach), m_strip);
        }
    }

private:
    QImage m_strip;
    QPen m_pen;
    int m_left = 0, m_right = 0;
    QCPPainter::PainterModes m_modes;
};

QString get_exponent(unsigned int e)
{
    if (e < 10)
        return QString(kSuperscript[e]);
    const QString digits = QString::number(e);
    QString out;
    for (QChar c : digits) {
        if (!c.isDigit())
            return QString();
        out.append(kSuperscript[c.digitValue()]);
    }
    return out;
}

void CxFFT1DCnbl::getYTicksAndLabels(double lower, double upper, bool logarithmic, QList<double>& ticks,
                                     QList<QString>& labels)
{
    ticks.clear();
    labels.clear();
    if (!logarithmic) {
        const double d = floorBelow2p52(upper / 5.0);
        double step = d;
        if (d == 0.0 || (d > 0.0 && d <= 1.0)) {
            step = 1.0;
        } else if (d > 0.0) {
            static const double series[] = {10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000,
                                            20000, 50000, 100000, 200000, 500000};
            step = 1000000.0;
            for (double s : series) {
                if (s >= d) {
                    step = s;
                    break;
                }
            }
        }
        if (upper >= 0.0 && step > 0.0) {
            for (int i = 0; i < kMaxTicks; ++i) {
                const double t = i * step;
                if (!(t <= upper))
                    break;
                ticks.append(t);
                labels.append(QStringLiteral("%1").arg(qint64(t)));
            }
        }
        return;
    }

    double e = 0.0;
    if (lower > 0.0) {
        e = std::fabs(std::log10(lower));
        if (upper > 0.0)
            e = std::max(e, std::fabs(std::log10(upper)));
    } else if (upper > 0.0) {
        e = std::max(0.0, std::fabs(std::log10(upper)));
    }
    double s = floorBelow2p52(e / 5.0);
    if (s == 0.0)
        s = 1.0;
    if (!std::isfinite(s))
        return;
    for (int i = 0; i < kMaxTicks; ++i) {
        const double k = i * s;
        if (!(k <= e))
            break;
        ticks.append(std::pow(10.0, k));
        if (k == 0.0)
            labels.append(QStringLiteral("1"));
        else if (k == 1.0)
            labels.append(QStringLiteral("10"));
        else
            labels.append(QStringLiteral("10%1").arg(get_exponent(unsigned(k))));
    }
    if (lower <= 0.0) {
        for (int i = 1; i < kMaxTicks; ++i) {
            const double k = -i * s;
            if (!(k >= lower))
                break;
            ticks.prepend(std::pow(10.0, k));
            labels.prepend(QStringLiteral("10-%1").arg(get_exponent(unsigned(-k))));
        }
    }
}

CxFFT1DSpectrumPlot::CxFFT1DSpectrumPlot()
{
    // Without a QGuiApplication there is no theme to ask (and nothing will
    // be drawn); Qt's built-in palette keeps the pens defined.
    const QPalette palette = qobject_cast<QGuiApplication*>(QCoreApplication::instance())
                                 ? QGuiApplication::palette()
                                 : QPalette(Qt::black, Qt::white);
    const QPalette::ColorGroup group = palette.currentColorGroup();
    const QColor text = palette.brush(group, QPalette::WindowText).color();
    m_axisPen = QPen(text);
    m_background = QBrush(palette.brush(group, QPalette::Base).color(), Qt::SolidPattern);
    m_graphPen = m_axisPen;
    m_graphPen.setColor(QColor::fromRgb(0xFFFF32));

    if (!widgetsAllowedHere())
        return;
    m_plot = new QCustomPlot;
    // The plot schedules a replot of its own on the GUI thread; it would race
    // with a chain thread painting, and nothing is ever shown anyway.
    QCoreApplication::removePostedEvents(m_plot, QEvent::MetaCall);
    m_plot->setVisible(false);
    m_plot->setPlottingHint(QCP::phFastPolylines, true);
    m_graph = m_plot->addGraph();
    m_graph->setPen(m_graphPen);
    m_plot->setBackground(m_background);

    QFont font = m_plot->font();
    font.setPointSizeF(font.pointSizeF() + 1.0);
    const struct
    {
        QCPAxis* axis;
        const char* label;
    } axes[] = {
        {m_plot->xAxis, QT_TRANSLATE_NOOP("CxFFT1DCnbl", "periods/pixel")},
        {m_plot->xAxis2, QT_TRANSLATE_NOOP("CxFFT1DCnbl", "pixels/period")},
        {m_plot->yAxis, QT_TRANSLATE_NOOP("CxFFT1DCnbl", "amplitude")},
    };
    for (const auto& a : axes) {
        a.axis->setLabelFont(font);
        a.axis->setTickLabelFont(font);
        a.axis->setTickLabels(true);
        a.axis->setTicks(true);
        a.axis->setVisible(true);
        a.axis->setBasePen(m_axisPen);
        a.axis->setTickPen(m_axisPen);
        a.axis->setSubTickPen(m_axisPen);
        a.axis->setLabelColor(text);
        a.axis->setTickLabelColor(text);
        a.axis->setLabel(QCoreApplication::translate("CxFFT1DCnbl", a.label));
    }

    m_gridPen = m_plot->yAxis->grid()->pen();
    m_gridPen.setStyle(Qt::DotLine);
    m_plot->yAxis->grid()->setPen(m_gridPen);
    m_plot->xAxis->grid()->setPen(m_gridPen);
    m_defaultZeroLinePen = m_plot->yAxis->grid()->zeroLinePen();
    m_gridX = m_plot->xAxis->grid()->visible();
    m_gridY = m_plot->yAxis->grid()->visible();
    setAxisYLogarithmic(false);

    m_rowGrid = new CxRowGrid(m_plot);

    m_plot->yAxis2->setVisible(true);
    m_plot->yAxis2->setTickLabels(false);
    m_plot->yAxis2->setBasePen(m_axisPen);
    m_plot->yAxis2->setSubTicks(false);
    m_plot->yAxis2->setTicks(false);
}

CxFFT1DSpectrumPlot::~CxFFT1DSpectrumPlot()
{
    delete m_plot;
}

void CxFFT1DSpectrumPlot::setAxisYLogarithmic(bool on)
{
    m_logarithmic = on;
    if (!m_plot)
        return;
    QCPAxis* y = m_plot->yAxis;
    y->setScaleType(on ? QCPAxis::stLogarithmic : QCPAxis::stLinear);
    y->grid()->setZeroLinePen(on ? m_gridPen : m_defaultZeroLinePen);
    y->setSubTicks(!on);
}

void CxFFT1DSpectrumPlot::setGridXVisible(bool on)
{
    m_gridX = on;
    if (m_plot)
        m_plot->xAxis->grid()->setVisible(on);
}

void CxFFT1DSpectrumPlot::setGridYVisible(bool on)
{
    m_gridY = on;
    if (m_plot)
        m_plot->yAxis->grid()->setVisible(on);
}

void CxFFT1DSpectrumPlot::scaleTo(int w, int h)
{
    if (!m_plot)
        return;
    QVector<double> positions;
    QVector<QString> bottomLabels;
    double v = 0.0;
    for (int i = 0; i < 6; ++i, v += 0.1) {
        positions.append(v);
        bottomLabels.append(QLocale().toString(v, 'g', 6));
    }
    const QVector<QString> topLabels = {QStringLiteral("\u221E"), QStringLiteral("10"), QStringLiteral("5"),
                                        QStringLiteral("%1").arg(1.0 / 0.3, 0, 'f', 2), QStringLiteral("2.5"),
                                        QStringLiteral("2")};
    auto bottom = QSharedPointer<QCPAxisTickerText>::create();
    bottom->setTicks(positions, bottomLabels);
    m_plot->xAxis->setTicker(bottom);
    m_plot->xAxis->setRange(0.0, 0.5);
    auto top = QSharedPointer<QCPAxisTickerText>::create();
    top->setTicks(positions, topLabels);
    m_plot->xAxis2->setTicker(top);
    m_plot->xAxis2->setRange(0.0, 0.5);

    const double points = std::max(15.0, h / 50.0);
    const double penWidth = std::max(1.0, w / 1000.0);
    const int tickLength = w / 150 ? w / 150 : 1;
    const int subTickLength = w / 400 ? w / 400 : 1;
    QCPAxis* const all[] = {m_plot->xAxis, m_plot->xAxis2, m_plot->yAxis, m_plot->yAxis2};
    for (QCPAxis* axis : all) {
        QFont label = axis->labelFont(), tickLabel = axis->tickLabelFont();
        label.setPointSizeF(points);
        tickLabel.setPointSizeF(points);
        axis->setLabelFont(label);
        axis->setTickLabelFont(tickLabel);
        for (auto [get, set] : {std::pair{&QCPAxis::basePen, &QCPAxis::setBasePen},
                                std::pair{&QCPAxis::tickPen, &QCPAxis::setTickPen},
                                std::pair{&QCPAxis::subTickPen, &QCPAxis::setSubTickPen}}) {
            QPen pen = (axis->*get)();
            pen.setWidthF(penWidth);
            (axis->*set)(pen);
        }
        axis->setTickLength(tickLength, 0);
    }
    m_plot->xAxis->setSubTickLength(subTickLength, 0);
    m_plot->yAxis->setSubTickLength(subTickLength, 0);
    m_gridPen.setWidthF(penWidth);
    m_plot->xAxis->grid()->setPen(m_gridPen);
    m_plot->yAxis->grid()->setPen(m_gridPen);
    if (m_logarithmic)
        m_plot->yAxis->grid()->setZeroLinePen(m_gridPen);

    QCPAxisRect* rect = m_plot->axisRect();
    rect->setMargins(QMargins(w >> 3, 0, 0, 0));
    rect->setAutoMargins(QCP::msRight | QCP::msTop | QCP::msBottom);
}

bool CxFFT1DSpectrumPlot::render(uchar* data, int w, int h, qsizetype linePitch, const QList<double>& keys,
                                 const QList<double>& values, double lower, double upper,
                                 const QList<double>& ticks, const QList<QString>& labels,
                                 QImage::Format format)
{
    if (!m_plot || !data || w <= 0 || h <= 0 || linePitch < qsizetype(w) * 4)
        return false;
    QImage image(data, w, h, linePitch, format);
    m_graph->setData(keys, values, false);
    m_plot->yAxis->setRange(lower, upper);
    if (ticks.size() < 2) {
        m_plot->yAxis->setTicker(QSharedPointer<QCPAxisTicker>::create());
    } else {
        auto ticker = QSharedPointer<QCPAxisTickerText>::create();
        ticker->setTicks(ticks, labels);
        m_plot->yAxis->setTicker(ticker);
    }
    // The strips stand in for the amplitude grid whenever they can.
    const bool rows = m_gridY && m_copyGridRows && m_rowGrid->covers(m_plot->yAxis);
    m_plot->yAxis->grid()->setVisible(m_gridY && !rows);
    m_rowGrid->setVisible(rows);
    QCPPainter painter(&image);
    m_plot->toPainter(&painter, w, h);
    painter.end();
    return true;
}
