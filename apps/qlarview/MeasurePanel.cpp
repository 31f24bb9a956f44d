#include "MeasurePanel.h"

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QHeaderView>
#include <QtWidgets/QLabel>
#include <QtWidgets/QTableWidget>
#include <QtWidgets/QVBoxLayout>

#include <qcustomplot.h>

#include <algorithm>
#include <cmath>

namespace {

QColor curveColour(bool colour, int channel)
{
    static const QColor rgb[] = {QColor(220, 40, 40), QColor(30, 160, 60), QColor(40, 80, 220)};
    static const QColor others[] = {QColor(40, 40, 40), QColor(230, 140, 20), QColor(20, 150, 160),
                                    QColor(150, 60, 170)};
    return colour && channel < 3 ? rgb[channel] : others[channel % 4];
}

constexpr double LogFloor = 0.8;

QString number(double v) { return QString::number(v, 'g', 6); }

} // namespace

CxMeasurePanel::CxMeasurePanel(QWidget* parent) : QWidget(parent)
{
    m_plot = new QCustomPlot(this);
    m_plot->setMinimumHeight(160);
    m_plot->xAxis->setLabel(tr("Value"));
    m_plot->yAxis->setLabel(tr("Pixels"));
    m_plot->legend->setVisible(false);

    m_log = new QCheckBox(tr("Logarithmic counts"), this);
    connect(m_log, &QCheckBox::toggled, this, [this] { plotHistogram(); });

    m_roiLabel = new QLabel(this);
    m_table = new QTableWidget(0, 5, this);
    m_table->setHorizontalHeaderLabels({tr("Mean"), tr("Std dev"), tr("Min"), tr("Max"), tr("Pixels")});
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    m_table->setMaximumHeight(140);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_plot, 1);
    layout->addWidget(m_log);
    layout->addWidget(m_roiLabel);
    layout->addWidget(m_table);

    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &CxMeasurePanel::refresh);
    fillTable({});
}

CxMeasurePanel::~CxMeasurePanel() = default;

void CxMeasurePanel::setFrame(ViewFramePtr frame)
{
    m_frame = std::move(frame);
    schedule();
}

void CxMeasurePanel::setRoi(const QRect& roi)
{
    m_roi = roi.normalized();
    schedule();
}

bool CxMeasurePanel::logScale() const { return m_log->isChecked(); }

void CxMeasurePanel::setLogScale(bool on) { m_log->setChecked(on); }

void CxMeasurePanel::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (m_dirty)
        schedule();
}

void CxMeasurePanel::schedule()
{
    m_dirty = true;
    if (!isVisible() || m_timer.isActive())
        return;
    const qint64 since = m_sinceRefresh.isValid() ? m_sinceRefresh.elapsed() : RefreshMs;
    m_timer.start(int(std::clamp<qint64>(RefreshMs - since, 0, RefreshMs)));
}

void CxMeasurePanel::refresh()
{
    // A hidden panel stays behind and catches up when it is shown again.
    if (!isVisible() || !m_dirty)
        return;
    m_dirty = false;
    m_sinceRefresh.restart();
    m_histogram = m_frame ? PictureMeasure::histogram(*m_frame) : PictureMeasure::SxHistogram();
    m_statistics = m_frame && !m_roi.isEmpty() ? PictureMeasure::rectStatistics(*m_frame, m_roi)
                                                : QList<PictureMeasure::SxChannelStatistics>();
    plotHistogram();
    fillTable(m_frame ? PictureMeasure::channelNames(*m_frame) : QStringList());
}

void CxMeasurePanel::plotHistogram()
{
    m_plot->clearGraphs();
    const bool log = m_log->isChecked();
    m_plot->yAxis->setScaleType(log ? QCPAxis::stLogarithmic : QCPAxis::stLinear);
    if (log)
        m_plot->yAxis->setTicker(QSharedPointer<QCPAxisTickerLog>::create());
    else
        m_plot->yAxis->setTicker(QSharedPointer<QCPAxisTicker>::create());

    const PictureMeasure::SxHistogram& h = m_histogram;
    const int curves = std::min<int>(int(h.counts.size()), MaxCurves);
    QVector<double> x(h.binCount());
    for (int b = 0; b < h.binCount(); ++b)
        x[b] = h.binCentre(b);
    double top = 1.0;
    for (int c = 0; c < curves; ++c) {
        QVector<double> y = h.counts.at(c);
        for (double& v : y) {
            top = std::max(top, v);
            // Empty bins drop below the log axis' floor instead of off to minus infinity.
            if (log && v <= 0.0)
                v = LogFloor / 2;
        }
        QCPGraph* graph = m_plot->addGraph();
        graph->setName(h.channelNames.value(c));
        graph->setPen(QPen(curveColour(h.colour, c)));
        graph->setLineStyle(QCPGraph::lsStepCenter);
        graph->setData(x, y, true);
    }
    if (h.binCount() > 0)
        m_plot->xAxis->setRange(h.low, h.low + h.binCount() * h.binWidth);
    m_plot->yAxis->setRange(log ? LogFloor : 0.0, top * (log ? 2.0 : 1.05));
    m_plot->replot(QCustomPlot::rpQueuedReplot);
}

void CxMeasurePanel::fillTable(const QStringList& names)
{
    if (m_roi.isEmpty())
        m_roiLabel->setText(tr("No rectangle selected (shift-drag or right-drag on the picture)"));
    else
        m_roiLabel->setText(tr("Rectangle %1, %2  %3 x %4")
                                .arg(m_roi.x())
                                .arg(m_roi.y())
                                .arg(m_roi.width())
                                .arg(m_roi.height()));
    m_table->setRowCount(int(m_statistics.size()));
    QStringList rows;
    for (int c = 0; c < m_statistics.size(); ++c) {
        const PictureMeasure::SxChannelStatistics& s = m_statistics.at(c);
        const QString values[] = {number(s.mean), number(s.stdDev), number(s.min), number(s.max),
                                  QString::number(s.count)};
        for (int col = 0; col < 5; ++col) {
            auto* item = new QTableWidgetItem(values[col]);
            item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            m_table->setItem(c, col, item);
        }
        rows.append(names.value(c).isEmpty() ? QStringLiteral("#%1").arg(c + 1) : names.value(c));
    }
    m_table->setVerticalHeaderLabels(rows);
}
