#pragma once
#include "PictureMeasure.h"
#include "ViewFrame.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtWidgets/QWidget>

class QCheckBox;
class QCustomPlot;
class QLabel;
class QTableWidget;

// The histogram of the shown frame and the statistics of the selected
// rectangle. setFrame and setRoi only note what changed; the work is done at
// most every RefreshMs and only while the panel is visible, so frames at full
// rate cost it nothing more than at four a second.
//
// Curves: red, green and blue for a colour picture, otherwise one per channel
// (at most four). The statistics table has a row per channel.
class CxMeasurePanel : public QWidget
{
    Q_OBJECT
public:
    static constexpr int RefreshMs = 250;
    static constexpr int MaxCurves = 4;

    explicit CxMeasurePanel(QWidget* parent = nullptr);
    ~CxMeasurePanel() override;

    void setFrame(ViewFramePtr frame);
    void setRoi(const QRect& roi);
    QRect roi() const { return m_roi; }
    bool logScale() const;
    void setLogScale(bool on);

    // What the panel shows now (refreshed on the timer).
    const PictureMeasure::SxHistogram& shownHistogram() const { return m_histogram; }
    const QList<PictureMeasure::SxChannelStatistics>& shownStatistics() const { return m_statistics; }

protected:
    void showEvent(QShowEvent* event) override;

private:
    void schedule();
    void refresh();
    void plotHistogram();
    void fillTable(const QStringList& names);

    ViewFramePtr m_frame;
    QRect m_roi;
    bool m_dirty = false;
    QTimer m_timer;
    QElapsedTimer m_sinceRefresh;

    PictureMeasure::SxHistogram m_histogram;
    QList<PictureMeasure::SxChannelStatistics> m_statistics;

    QCustomPlot* m_plot = nullptr;
    QCheckBox* m_log = nullptr;
    QLabel* m_roiLabel = nullptr;
    QTableWidget* m_table = nullptr;
};
