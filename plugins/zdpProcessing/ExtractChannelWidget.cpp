#include "ExtractChannelWidget.h"
#include "ExtractChannelCnbl.h"

#include <QtWidgets/QListWidget>
#include <QtWidgets/QVBoxLayout>

static_assert(CxExtractChannelWidget::ChannelIndexRole == Qt::UserRole);

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
    for (int i = 0; i < names.size(); ++i)
        createChannelItem(m_list, names.at(i), indices.at(i), current);
    if (m_list->currentRow() < 0 && m_list->count() > 0)
        m_list->setCurrentRow(0);

    // Connected only now: filling the list is no choice of the user's.
    connect(m_list, &QListWidget::currentRowChanged, this, &CxExtractChannelWidget::on_lstChannelClicked);
    if (QListWidgetItem* item = m_list->currentItem())
        m_list->scrollToItem(item);
}

CxExtractChannelWidget::~CxExtractChannelWidget() = default;

QListWidgetItem* CxExtractChannelWidget::createChannelItem(QListWidget* list, const QString& name,
                                                           int index, int current)
{
    auto* item = new QListWidgetItem(name);
    item->setData(ChannelIndexRole, index);
    list->addItem(item);
    if (index == current)
        list->setCurrentItem(item);
    return item;
}

void CxExtractChannelWidget::on_lstChannelClicked(int row)
{
    const QListWidgetItem* item = m_list->item(row);
    if (!item)
        return;
    m_node->setChannel(unsigned(item->data(ChannelIndexRole).toInt()), item->text(), true);
}
