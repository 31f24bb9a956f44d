#include "ChainPanel.h"

#include "ViewerSession.h"

#include <CxChain.h>
#include <CxChainable.h>

#include <QtCore/QTimer>
#include <QtWidgets/QFileDialog>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QListWidget>
#include <QtWidgets/QMenu>
#include <QtWidgets/QMessageBox>
#include <QtWidgets/QToolButton>
#include <QtWidgets/QVBoxLayout>

CxChainEntry::CxChainEntry(CxChainable* node, QWidget* parent) : QWidget(parent), m_node(node)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(6, 4, 6, 4);
    layout->setSpacing(2);
    m_title = new QLabel(this);
    QFont bold = m_title->font();
    bold.setBold(true);
    m_title->setFont(bold);
    layout->addWidget(m_title);
    m_buttonRow = new QHBoxLayout;
    m_buttonRow->setSpacing(2);
    layout->addLayout(m_buttonRow);
    m_error = new QLabel(this);
    m_error->setWordWrap(true);
    m_error->setStyleSheet(QStringLiteral("color: #c0392b"));
    layout->addWidget(m_error);
    m_speed = new QLabel(this);
    m_speed->setStyleSheet(QStringLiteral("color: gray"));
    layout->addWidget(m_speed);
    // A node's signals come from whatever thread changed it.
    connect(node, &CxChainable::titleChanged, this, &CxChainEntry::refresh, Qt::QueuedConnection);
    connect(node, &CxChainable::errorMessageChanged, this, &CxChainEntry::refresh, Qt::QueuedConnection);
    showSpeed(-1, -1);
    refresh();
}

void CxChainEntry::refresh()
{
    if (!m_node)
        return;
    m_title->setText(m_node->title());
    const QString error = m_node->errorMessage();
    m_error->setText(error);
    m_error->setVisible(!error.isEmpty());
    rebuildButtons();
}

void CxChainEntry::showSpeed(double fps, double msPerFrame)
{
    if (fps < 0)
        m_speed->setText(tr("idle"));
    else
        m_speed->setText(tr("%1 fps, %2 ms per frame").arg(fps, 0, 'f', 1).arg(msPerFrame, 0, 'f', 2));
}

// The node decides its buttons (their number may follow the input format)
// and their check states. Buttons are only made anew when the set changed,
// so that one never vanishes under the mouse; check states are set in place.
void CxChainEntry::rebuildButtons()
{
    QList<CxChainable::CxSimpleStateConfigButton> buttons;
    bool hasButtons = false;
    m_node->simpleStateConfigButtons(buttons, hasButtons);
    if (!hasButtons)
        buttons.clear();
    QString key;
    for (const auto& b : std::as_const(buttons))
        key += QStringLiteral("%1\x1f%2\x1f%3\x1e").arg(b.label()).arg(b.id()).arg(b.isCheckable());
    if (key == m_buttonKey && m_buttons.size() == buttons.size()) {
        for (int i = 0; i < buttons.size(); ++i)
            m_buttons[i]->setChecked(buttons[i].isChecked());
        return;
    }
    m_buttonKey = key;
    // Later: this may run inside one of these buttons' own click.
    for (QToolButton* old : std::as_const(m_buttons))
        old->deleteLater();
    m_buttons.clear();
    while (QLayoutItem* item = m_buttonRow->takeAt(0))
        delete item;
    for (const auto& b : std::as_const(buttons)) {
        auto* button = new QToolButton(this);
        button->setText(b.label());
        button->setCheckable(b.isCheckable());
        button->setChecked(b.isChecked());
        const int id = b.id();
        connect(button, &QToolButton::clicked, this, [this, id] {
            if (!m_node)
                return;
            // The node restarts a running chain itself; its buttons then
            // show what it did, whatever the click toggled.
            m_node->simpleStateConfigButtonPressed(id);
            refresh();
        });
        m_buttonRow->addWidget(button);
        m_buttons.append(button);
    }
    m_buttonRow->addStretch(1);
}

CxChainPanel::CxChainPanel(CxViewerSession* session, QWidget* parent) : QWidget(parent), m_session(session)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    auto* tools = new QHBoxLayout;
    auto* add = new QToolButton(this);
    add->setText(tr("Add"));
    add->setPopupMode(QToolButton::InstantPopup);
    auto* menu = new QMenu(add);
    menu->setToolTipsVisible(true);
    for (const CxViewerSession::SxNodeKind& kind : CxViewerSession::nodeKinds()) {
        QAction* action = menu->addAction(kind.customName);
        action->setToolTip(kind.help);
        const QString name = kind.customName;
        connect(action, &QAction::triggered, this, [this, name] { addNode(name); });
    }
    add->setMenu(menu);
    tools->addWidget(add);
    auto button = [&](const QString& text, const QString& tip, auto slot) {
        auto* b = new QToolButton(this);
        b->setText(text);
        b->setToolTip(tip);
        connect(b, &QToolButton::clicked, this, slot);
        tools->addWidget(b);
        return b;
    };
    button(tr("Remove"), tr("Remove the chosen node"), [this] { removeCurrent(); });
    button(tr("Up"), tr("Move the chosen node towards the source"), [this] { moveCurrent(-1); });
    button(tr("Down"), tr("Move the chosen node towards the output"), [this] { moveCurrent(1); });
    button(tr("Load…"), tr("Replace the chain with a chain document"), [this] { loadChain(); });
    button(tr("Save…"), tr("Save the chain and its input's description as a chain document"), [this] { saveChain(); });
    tools->addStretch(1);
    layout->addLayout(tools);
    m_list = new QListWidget(this);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    layout->addWidget(m_list, 1);
    connect(m_list, &QListWidget::currentRowChanged, this, &CxChainPanel::nodeChosen);
    connect(session, &CxViewerSession::nodesChanged, this, &CxChainPanel::rebuild);
    connect(session, &CxViewerSession::formatsChanged, this, &CxChainPanel::refreshEntries);
    auto* timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &CxChainPanel::updateSpeeds);
    timer->start(500);
    m_clock.start();
    rebuild();
}

int CxChainPanel::currentIndex() const { return m_list->currentRow(); }
void CxChainPanel::setCurrentIndex(int index) { m_list->setCurrentRow(index); }
int CxChainPanel::count() const { return m_list->count(); }

CxChainEntry* CxChainPanel::entry(int index) const
{
    return qobject_cast<CxChainEntry*>(m_list->itemWidget(m_list->item(index)));
}

void CxChainPanel::rebuild()
{
    const int current = m_list->currentRow();
    const QSignalBlocker blocker(m_list);
    m_list->clear();
    for (CxChainable* node : m_session->nodes()) {
        auto* item = new QListWidgetItem(m_list);
        auto* entry = new CxChainEntry(node, m_list);
        item->setSizeHint(entry->sizeHint());
        m_list->setItemWidget(item, entry);
    }
    m_last.clear();
    const int chosen = qMin(current, m_list->count() - 1);
    m_list->setCurrentRow(chosen);
    emit nodeChosen(m_list->currentRow());
}

void CxChainPanel::refreshEntries()
{
    for (int i = 0; i < m_list->count(); ++i) {
        if (CxChainEntry* e = entry(i)) {
            e->refresh();
            m_list->item(i)->setSizeHint(e->sizeHint());
        }
    }
}

void CxChainPanel::updateSpeeds()
{
    const qint64 now = m_clock.nsecsElapsed();
    const double seconds = (now - m_lastNs) / 1e9;
    m_lastNs = now;
    const int n = m_list->count();
    m_last.resize(n);
    const bool running = m_session->isRunning();
    for (int i = 0; i < n; ++i) {
        const CxChain::SxNodeStats stats = m_session->chain()->nodeStats(i);
        SxSample& last = m_last[i];
        const qint64 frames = stats.frames - last.frames;
        const qint64 busy = stats.busyNs - last.busyNs;
        last = SxSample{stats.frames, stats.busyNs};
        CxChainEntry* e = entry(i);
        if (!e)
            continue;
        if (!running || seconds <= 0.0)
            e->showSpeed(-1, -1);
        else
            e->showSpeed(frames / seconds, frames > 0 ? busy / 1e6 / frames : 0.0);
        // Quick buttons follow settings made in the node's panel too.
        e->refresh();
    }
}

void CxChainPanel::addNode(const QString& name)
{
    QString error;
    const int at = m_list->currentRow() < 0 ? -1 : m_list->currentRow() + 1;
    if (!m_session->addNode(name, at, &error)) {
        QMessageBox::warning(this, tr("Add node"), error);
        return;
    }
    setCurrentIndex(at < 0 ? count() - 1 : at);
}

void CxChainPanel::removeCurrent()
{
    const int row = m_list->currentRow();
    if (row >= 0)
        m_session->removeNode(row);
}

void CxChainPanel::moveCurrent(int by)
{
    const int row = m_list->currentRow();
    const int to = row + by;
    if (row < 0 || to < 0 || to >= count())
        return;
    m_session->moveNode(row, to);
    setCurrentIndex(to);
}

void CxChainPanel::loadChain()
{
    const QString path = QFileDialog::getOpenFileName(this, tr("Load chain"), QString(),
                                                      tr("Chain documents (*.xml);;All files (*)"));
    if (path.isEmpty())
        return;
    QString error;
    if (!m_session->loadChain(path, &error))
        QMessageBox::warning(this, tr("Load chain"), error);
}

void CxChainPanel::saveChain()
{
    const QString path = QFileDialog::getSaveFileName(this, tr("Save chain"), QStringLiteral("chain.xml"),
                                                      tr("Chain documents (*.xml)"));
    if (path.isEmpty())
        return;
    QString error;
    if (!m_session->saveChain(path, &error))
        QMessageBox::warning(this, tr("Save chain"), error);
}
