#pragma once
#include <QtCore/QPointer>
#include <QtCore/QString>
#include <QtWidgets/QWidget>

class CxChainable;
class CxViewerSession;
class QLabel;
class QVBoxLayout;

// Holds the configuration widget of the chosen node. The widget a node
// hands out belongs to whoever asked for it, so this host deletes it: when
// another node is chosen, before its node is removed (the session says so
// first), and when the node's input format changed, since a panel is built
// for the input it saw (Extract Channel lists that input's channels). A
// panel that is replaced may be in the middle of its own slot (its setter
// restarted the chain), so it is hidden at once and deleted later.
class CxNodePanelHost : public QWidget
{
    Q_OBJECT
public:
    explicit CxNodePanelHost(CxViewerSession* session, QWidget* parent = nullptr);
    ~CxNodePanelHost() override;

    // index in the session's nodes; -1 shows nothing.
    void showNode(int index);
    CxChainable* node() const { return m_node; }
    QWidget* panel() const { return m_panel; }

signals:
    void titleChanged(const QString& title);

private slots:
    void onNodeAboutToBeRemoved(CxChainable* node);
    void onFormatsChanged();

private:
    QString inputKey() const;
    void build();
    void dropPanel();

    CxViewerSession* m_session;
    QPointer<CxChainable> m_node;
    QPointer<QWidget> m_panel;
    QString m_builtFor;  // the input format the panel was made for
    QVBoxLayout* m_layout = nullptr;
    QLabel* m_placeholder = nullptr;
};
