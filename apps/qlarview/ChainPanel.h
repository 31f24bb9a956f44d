#pragma once
#include <QtCore/QElapsedTimer>
#include <QtCore/QList>
#include <QtCore/QPointer>
#include <QtWidgets/QWidget>

class CxChainable;
class CxViewerSession;
class QLabel;
class QListWidget;
class QToolButton;
class QHBoxLayout;

// One node of the chain as the panel shows it: its title, its quick buttons,
// its error message and how fast it runs. Everything is read from the node
// on the GUI thread; the node's own signals (which may come from a chain
// thread) only schedule a refresh.
class CxChainEntry : public QWidget
{
    Q_OBJECT
public:
    CxChainEntry(CxChainable* node, QWidget* parent = nullptr);
    CxChainable* node() const { return m_node; }

    // Title, error message and quick buttons as the node has them now.
    void refresh();
    // frames per second and milliseconds per frame; negative: not running.
    void showSpeed(double fps, double msPerFrame);
    // The labels and check states of the buttons shown, for tests.
    QList<QToolButton*> quickButtons() const { return m_buttons; }

private:
    void rebuildButtons();

    QPointer<CxChainable> m_node;
    QLabel* m_title = nullptr;
    QLabel* m_error = nullptr;
    QLabel* m_speed = nullptr;
    QHBoxLayout* m_buttonRow = nullptr;
    QList<QToolButton*> m_buttons;
    QString m_buttonKey;  // what the buttons were built from
};

// The chain editor: the nodes in chain order, a menu of every registered
// node (help text as tool tip), remove, move up and down, load and save.
// Choosing an entry asks for that node's panel and view (nodeChosen).
class CxChainPanel : public QWidget
{
    Q_OBJECT
public:
    explicit CxChainPanel(CxViewerSession* session, QWidget* parent = nullptr);

    int currentIndex() const;
    void setCurrentIndex(int index);
    CxChainEntry* entry(int index) const;
    int count() const;

signals:
    // -1 when no node is chosen.
    void nodeChosen(int index);

public slots:
    void rebuild();
    void refreshEntries();
    void updateSpeeds();

private:
    void addNode(const QString& name);
    void removeCurrent();
    void moveCurrent(int by);
    void loadChain();
    void saveChain();

    CxViewerSession* m_session;
    QListWidget* m_list = nullptr;
    QElapsedTimer m_clock;
    struct SxSample
    {
        qint64 frames = 0;
        qint64 busyNs = 0;
    };
    QList<SxSample> m_last;
    qint64 m_lastNs = 0;
};
