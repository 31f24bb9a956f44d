#pragma once
#include "ViewFrame.h"

#include <QtCore/QElapsedTimer>
#include <QtWidgets/QMainWindow>

class CxChainPanel;
class CxMeasurePanel;
class CxNodePanelHost;
class CxPictureView;
class CxSourcePanel;
class CxViewerSession;
class QAction;
class QComboBox;
class QDockWidget;
class QLabel;
class QSpinBox;

// The viewer's window: the picture of the chosen stage in the middle, the
// source, the chain and the chosen node's panel on the left and right, the
// histogram and rectangle statistics below, and a status line with what the
// source delivered and dropped, how full the queues are and the chain's
// state. The window never waits for a frame: pictures arrive through the
// session's viewFrameReady and are drawn when Qt paints.
class CxMainWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit CxMainWindow(CxViewerSession* session, QWidget* parent = nullptr);
    ~CxMainWindow() override;

    CxViewerSession* session() const { return m_session; }
    CxChainPanel* chainPanel() const { return m_chainPanel; }
    CxNodePanelHost* nodePanel() const { return m_nodePanel; }
    CxPictureView* pictureView() const { return m_view; }
    CxSourcePanel* sourcePanel() const { return m_sourcePanel; }
    // The frame shown now (null before the first).
    ViewFramePtr shownFrame() const { return m_shown; }
    qint64 framesShown() const { return m_framesShown; }

    // -1: the chain's input, i: node i.
    void showStage(int stage);
    // Records the shown stage into folder; frames 0: until stopped.
    bool record(const QString& folder, qint64 frames, QString* error);

public slots:
    void updateStatus();

private slots:
    void onViewFrameReady();
    void onNodesChanged();
    void onRunningChanged(bool running);
    void onMessage(const QString& text);
    void onRecordToggled(bool on);
    void snapshot();

private:
    void buildToolBar();
    void buildDocks();
    QDockWidget* dock(const QString& title, QWidget* content, Qt::DockWidgetArea area);

    CxViewerSession* m_session;
    CxPictureView* m_view = nullptr;
    CxChainPanel* m_chainPanel = nullptr;
    CxNodePanelHost* m_nodePanel = nullptr;
    CxMeasurePanel* m_measure = nullptr;
    CxSourcePanel* m_sourcePanel = nullptr;
    QDockWidget* m_nodeDock = nullptr;

    QAction* m_runAction = nullptr;
    QAction* m_recordAction = nullptr;
    QComboBox* m_stageBox = nullptr;
    QComboBox* m_stretchBox = nullptr;
    QSpinBox* m_channelBox = nullptr;
    QSpinBox* m_recordFrames = nullptr;

    QLabel* m_sourceStatus = nullptr;
    QLabel* m_queueStatus = nullptr;
    QLabel* m_chainStatus = nullptr;
    QLabel* m_viewStatus = nullptr;
    QLabel* m_hover = nullptr;

    ViewFramePtr m_shown;
    qint64 m_framesShown = 0;
    qint64 m_shownAtLastStatus = 0;
    QElapsedTimer m_statusClock;
};
