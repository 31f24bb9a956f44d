#include "NodePanelHost.h"

#include "ViewerSession.h"

#include <CxChain.h>
#include <CxChainable.h>

#include <QtWidgets/QLabel>
#include <QtWidgets/QVBoxLayout>

CxNodePanelHost::CxNodePanelHost(CxViewerSession* session, QWidget* parent) : QWidget(parent), m_session(session)
{
    m_layout = new QVBoxLayout(this);
    m_layout->setContentsMargins(4, 4, 4, 4);
    m_placeholder = new QLabel(tr("Choose a node of the chain to see its settings."), this);
    m_placeholder->setWordWrap(true);
    m_placeholder->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    m_layout->addWidget(m_placeholder);
    connect(session, &CxViewerSession::nodeAboutToBeRemoved, this, &CxNodePanelHost::onNodeAboutToBeRemoved);
    connect(session, &CxViewerSession::formatsChanged, this, &CxNodePanelHost::onFormatsChanged);
}

CxNodePanelHost::~CxNodePanelHost()
{
    // Panels talk to their node; they go before the node does.
    delete m_panel.data();
}

void CxNodePanelHost::showNode(int index)
{
    const QList<CxChainable*> nodes = m_session->nodes();
    CxChainable* node = index >= 0 && index < nodes.size() ? nodes[index] : nullptr;
    if (node == m_node && m_panel)
        return;
    dropPanel();
    m_node = node;
    build();
}

// The format a node's panel depends on: what the node is given.
QString CxNodePanelHost::inputKey() const
{
    if (!m_node)
        return QString();
    const int index = int(m_session->nodes().indexOf(m_node.data()));
    SxPicBufInfo format;
    CxImageMetadata meta;
    if (!m_session->chain()->negotiatedFormat(index - 1, format, &meta))
        return QString();
    return format.describe() + QLatin1Char('|') + meta.channelNames().join(QLatin1Char(','))
           + QLatin1Char('|') + QString::number(meta.hsiCameraParams().filterZoneCount());
}

void CxNodePanelHost::build()
{
    m_placeholder->setVisible(!m_node);
    if (!m_node) {
        emit titleChanged(tr("Node settings"));
        return;
    }
    m_builtFor = inputKey();
    emit titleChanged(m_node->title());
    if (!m_node->hasConfigurationWidget()) {
        m_placeholder->setText(tr("\"%1\" has no settings panel; its quick buttons are in the chain.").arg(m_node->title()));
        m_placeholder->show();
        return;
    }
    m_panel = m_node->configurationWidget();
    if (!m_panel) {
        m_placeholder->setText(tr("\"%1\" gave no settings panel.").arg(m_node->title()));
        m_placeholder->show();
        return;
    }
    m_panel->setParent(this);
    m_layout->addWidget(m_panel);
    m_panel->show();
}

void CxNodePanelHost::dropPanel()
{
    if (!m_panel)
        return;
    m_layout->removeWidget(m_panel);
    m_panel->hide();
    m_panel->deleteLater();
    m_panel = nullptr;
}

void CxNodePanelHost::onNodeAboutToBeRemoved(CxChainable* node)
{
    if (node != m_node)
        return;
    // The node is deleted right after this returns: its panel must not
    // outlive it even until the next event loop turn.
    delete m_panel.data();
    m_node = nullptr;
    build();
}

void CxNodePanelHost::onFormatsChanged()
{
    if (!m_node || inputKey() == m_builtFor)
        return;
    dropPanel();
    build();
}
