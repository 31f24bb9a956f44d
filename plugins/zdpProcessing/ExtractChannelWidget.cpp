#include "ExtractChannelWidget.h"
#include "ExtractChannelCnbl.h"

#include <QtWidgets/QListWidget>
#include <QtWidgets/QVBoxLayout>

CxExtractChannelWidget::CxExtractChannelWidget(CxExtractChannelCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("Extract Channel"));
    auto* layout = new QVBoxLayout(this);
    m_list = new QListWidget;
    layout->addWidget(m_list);

    QList<QString> names;
    QList<int> indices;
    int current = 0;
    node->listOfAvailableChannels(names, indices, &current);
    nodekit::fillChannelList(m_list, names, indices, current);
    if (m_list->currentRow() < 0 && m_list->count() > 0)
        m_list->setCurrentRow(0);

    // Connected only now: filling the list is no choice of the user's.
    connect(m_list, &QListWidget::currentRowChanged, this, &CxExtractChannelWidget::on_lstChannelClicked);
}

CxExtractChannelWidget::~CxExtractChannelWidget() = default;

void CxExtractChannelWidget::on_lstChannelClicked(int row)
{
    const QListWidgetItem* item = m_list->item(row);
    if (!item)
        return;
    m_node->setChannel(unsigned(item->data(Qt::UserRole).toInt()), item->text(), true);
}
