#include "MainWindow.h"

#include "ChainPanel.h"
#include "MeasurePanel.h"
#include "NodePanelHost.h"
#include "PictureView.h"
#include "Recorder.h"
#include "SourcePanel.h"
#include "ViewerSession.h"

#include <CxChain.h>
#include <CxChainable.h>
#include <CxImageSource.h>

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QTimer>
#include <QtWidgets/QComboBox>
#include <QtWidgets/QDockWidget>
#include <QtWidgets/QFileDialog>
#include <QtWidgets/QLabel>
#include <QtWidgets/QMessageBox>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QStatusBar>
#include <QtWidgets/QToolBar>

CxMainWindow::CxMainWindow(CxViewerSession* session, QWidget* parent) : QMainWindow(parent), m_session(session)
{
    setWindowTitle(tr("qlarview"));
    m_view = new CxPictureView(this);
    setCentralWidget(m_view);
    buildDocks();
    buildToolBar();

    m_sourceStatus = new QLabel(this);
    m_queueStatus = new QLabel(this);
    m_chainStatus = new QLabel(this);
    m_viewStatus = new QLabel(this);
    m_hover = new QLabel(this);
    statusBar()->addWidget(m_hover, 1);
    for (QLabel* label : {m_sourceStatus, m_queueStatus, m_viewStatus, m_chainStatus})
        statusBar()->addPermanentWidget(label);

    connect(m_session, &CxViewerSession::viewFrameReady, this, &CxMainWindow::onViewFrameReady);
    connect(m_session, &CxViewerSession::nodesChanged, this, &CxMainWindow::onNodesChanged);
    connect(m_session, &CxViewerSession::runningChanged, this, &CxMainWindow::onRunningChanged);
    connect(m_session, &CxViewerSession::message, this, &CxMainWindow::onMessage);
    connect(m_view, &CxPictureView::hoverInfo, m_hover, &QLabel::setText);
    connect(m_view, &CxPictureView::roiChanged, m_measure, &CxMeasurePanel::setRoi);
    connect(m_chainPanel, &CxChainPanel::nodeChosen, this, [this](int index) {
        m_nodePanel->showNode(index);
        if (index >= 0)
            showStage(index);
    });
    connect(m_nodePanel, &CxNodePanelHost::titleChanged, m_nodeDock, &QDockWidget::setWindowTitle);

    auto* timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, [this] {
        const qint64 ns = m_statusClock.nsecsElapsed();
        m_statusClock.restart();
        const double fps = ns > 0 ? (m_framesShown - m_shownAtLastStatus) * 1e9 / ns : 0.0;
        m_shownAtLastStatus = m_framesShown;
        m_viewStatus->setText(tr("view %1 fps").arg(fps, 0, 'f', 1));
        updateStatus();
    });
    timer->start(1000);
    m_statusClock.start();
    onNodesChanged();
    onRunningChanged(m_session->isRunning());
    resize(1400, 900);
}

CxMainWindow::~CxMainWindow() = default;

QDockWidget* CxMainWindow::dock(const QString& title, QWidget* content, Qt::DockWidgetArea area)
{
    auto* d = new QDockWidget(title, this);
    d->setObjectName(title);
    d->setWidget(content);
    d->setFeatures(QDockWidget::DockWidgetMovable | QDockWidget::DockWidgetFloatable);
    addDockWidget(area, d);
    return d;
}

void CxMainWindow::buildDocks()
{
    m_sourcePanel = new CxSourcePanel(m_session, this);
    m_chainPanel = new CxChainPanel(m_session, this);
    m_nodePanel = new CxNodePanelHost(m_session, this);
    m_measure = new CxMeasurePanel(this);
    QDockWidget* source = dock(tr("Source"), m_sourcePanel, Qt::LeftDockWidgetArea);
    QDockWidget* chain = dock(tr("Chain"), m_chainPanel, Qt::LeftDockWidgetArea);
    splitDockWidget(source, chain, Qt::Vertical);
    m_nodeDock = dock(tr("Node settings"), m_nodePanel, Qt::RightDockWidgetArea);
    QDockWidget* measure = dock(tr("Histogram and statistics"), m_measure, Qt::RightDockWidgetArea);
    splitDockWidget(m_nodeDock, measure, Qt::Vertical);
}

void CxMainWindow::buildToolBar()
{
    QToolBar* bar = addToolBar(tr("View"));
    bar->setObjectName(QStringLiteral("viewToolBar"));
    m_runAction = bar->addAction(tr("Start"));
    m_runAction->setCheckable(true);
    m_runAction->setToolTip(tr("Start or stop the chain"));
    connect(m_runAction, &QAction::triggered, this, [this](bool on) {
        if (on)
            m_session->start();
        else
            m_session->stop();
    });
    bar->addSeparator();
    bar->addWidget(new QLabel(tr(" Show "), bar));
    m_stageBox = new QComboBox(bar);
    m_stageBox->setToolTip(tr("The stage of the chain whose pictures are shown and recorded"));
    m_stageBox->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    connect(m_stageBox, &QComboBox::activated, this, [this](int row) { showStage(row - 1); });
    bar->addWidget(m_stageBox);
    bar->addWidget(new QLabel(tr(" Stretch "), bar));
    m_stretchBox = new QComboBox(bar);
    m_stretchBox->addItem(tr("Automatic"), int(CxDisplayMapper::Auto));
    m_stretchBox->addItem(tr("Significant bits"), int(CxDisplayMapper::SignificantBits));
    m_stretchBox->addItem(tr("Full range"), int(CxDisplayMapper::FullRange));
    m_stretchBox->setToolTip(tr("How samples map to screen brightness; the data stay as they are"));
    connect(m_stretchBox, &QComboBox::activated, this, [this](int row) {
        m_view->setStretchMode(CxDisplayMapper::ExStretchMode(m_stretchBox->itemData(row).toInt()));
    });
    m_view->setStretchMode(CxDisplayMapper::Auto);
    bar->addWidget(m_stretchBox);
    bar->addWidget(new QLabel(tr(" Channel "), bar));
    m_channelBox = new QSpinBox(bar);
    m_channelBox->setRange(0, 255);
    m_channelBox->setToolTip(tr("The channel shown of pictures with several channels that are not colour"));
    connect(m_channelBox, &QSpinBox::valueChanged, m_view, &CxPictureView::setChannel);
    bar->addWidget(m_channelBox);
    bar->addSeparator();
    bar->addAction(tr("Fit"), m_view, &CxPictureView::fitToWindow);
    bar->addAction(tr("1:1"), m_view, [this] { m_view->setZoom(1.0); });
    bar->addSeparator();
    bar->addAction(tr("Snapshot…"), this, &CxMainWindow::snapshot);
    m_recordAction = bar->addAction(tr("Record"));
    m_recordAction->setCheckable(true);
    m_recordAction->setToolTip(tr("Record the shown stage as exact TIFFs, with the chain beside them"));
    connect(m_recordAction, &QAction::toggled, this, &CxMainWindow::onRecordToggled);
    m_recordFrames = new QSpinBox(bar);
    m_recordFrames->setRange(0, 1000000);
    m_recordFrames->setSpecialValueText(tr("until stopped"));
    m_recordFrames->setSuffix(tr(" frames"));
    m_recordFrames->setToolTip(tr("How many frames a recording takes"));
    bar->addWidget(m_recordFrames);
}

void CxMainWindow::showStage(int stage)
{
    m_session->setViewedStage(stage);
    const int row = qBound(0, stage + 1, m_stageBox->count() - 1);
    m_stageBox->setCurrentIndex(row);
}

void CxMainWindow::onNodesChanged()
{
    const int stage = m_session->viewedStage();
    m_stageBox->clear();
    m_stageBox->addItem(tr("Input"));
    const QList<CxChainable*> nodes = m_session->nodes();
    for (int i = 0; i < nodes.size(); ++i)
        m_stageBox->addItem(QStringLiteral("%1: %2").arg(i + 1).arg(nodes[i]->title()));
    showStage(qMin(stage, int(nodes.size()) - 1));
}

void CxMainWindow::onViewFrameReady()
{
    ViewFramePtr frame = m_session->takeViewFrame();
    if (!frame)
        return;
    m_shown = frame;
    ++m_framesShown;
    m_view->setFrame(frame);
    m_measure->setFrame(frame);
}

void CxMainWindow::onRunningChanged(bool running)
{
    const QSignalBlocker blocker(m_runAction);
    m_runAction->setChecked(running);
    m_runAction->setText(running ? tr("Stop") : tr("Start"));
    updateStatus();
}

void CxMainWindow::onMessage(const QString& text)
{
    statusBar()->showMessage(text, 15000);
    if (!m_recordAction->isChecked() || m_session->recorder()->isRecording())
        return;
    const QSignalBlocker blocker(m_recordAction);
    m_recordAction->setChecked(false);
}

bool CxMainWindow::record(const QString& folder, qint64 frames, QString* error)
{
    const bool ok = m_session->startRecording(folder, frames, error);
    const QSignalBlocker blocker(m_recordAction);
    m_recordAction->setChecked(ok);
    return ok;
}

void CxMainWindow::onRecordToggled(bool on)
{
    if (!on) {
        m_session->stopRecording();
        return;
    }
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString folder = QFileDialog::getExistingDirectory(this, tr("Record into a new folder in…"), QDir::currentPath());
    QString error;
    if (folder.isEmpty() || !record(QDir(folder).filePath(QStringLiteral("recording-") + stamp), m_recordFrames->value(), &error)) {
        if (!error.isEmpty())
            QMessageBox::warning(this, tr("Record"), error);
        const QSignalBlocker blocker(m_recordAction);
        m_recordAction->setChecked(false);
    }
}

void CxMainWindow::snapshot()
{
    if (!m_shown) {
        statusBar()->showMessage(tr("Nothing to save yet"), 5000);
        return;
    }
    const QString name = QStringLiteral("snapshot_%1.tif").arg(m_shown->pic.frameNumber, 6, 10, QLatin1Char('0'));
    const QString path = QFileDialog::getSaveFileName(this, tr("Save the shown picture"), name, tr("TIFF (*.tif)"));
    if (path.isEmpty())
        return;
    QString error;
    if (CxRecorder::snapshot(m_shown, path, &error))
        statusBar()->showMessage(tr("Saved %1").arg(path), 5000);
    else
        QMessageBox::warning(this, tr("Snapshot"), error);
}

void CxMainWindow::updateStatus()
{
    // Titles follow settings.
    const QList<CxChainable*> nodes = m_session->nodes();
    for (int i = 0; i < nodes.size() && i + 1 < m_stageBox->count(); ++i)
        m_stageBox->setItemText(i + 1, QStringLiteral("%1: %2").arg(i + 1).arg(nodes[i]->title()));
    const CxChain::SxStats stats = m_session->chain()->stats();
    m_sourceStatus->setText(tr("source: %1 delivered, %2 dropped").arg(stats.grabbed).arg(stats.droppedAtSource));
    QStringList fill;
    const int depth = m_session->chain()->queueDepth();
    for (int n : m_session->chain()->queueFill())
        fill << QStringLiteral("%1/%2").arg(n).arg(depth);
    m_queueStatus->setText(fill.isEmpty() ? QString() : tr("queues %1").arg(fill.join(QLatin1Char(' '))));
    QString state = m_session->isRunning() ? tr("running") : tr("stopped");
    if (m_session->recorder()->isRecording())
        state += tr(", recording %1").arg(m_session->recorder()->framesRecorded());
    m_chainStatus->setText(state);
    if (!m_session->isRunning() && !m_session->lastError().isEmpty())
        m_chainStatus->setText(tr("stopped: %1").arg(m_session->lastError()));
}
