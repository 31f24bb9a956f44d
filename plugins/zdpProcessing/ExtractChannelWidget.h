#pragma once
#include <QtWidgets/QWidget>

class QListWidget;
class QListWidgetItem;
class CxExtractChannelCnbl;

// Configuration panel of the extract channel node: the channels the current
// input offers, as a list. Picking a row sets the node's channel at once
// (restarting a running chain); the list is filled when the panel is made and
// does not follow later format changes or quick buttons.
class CxExtractChannelWidget : public QWidget
{
    Q_OBJECT
public:
    // Role under which each row keeps the channel index it stands for.
    static constexpr int ChannelIndexRole = 256;

    explicit CxExtractChannelWidget(CxExtractChannelCnbl* node);
    ~CxExtractChannelWidget() override;

private slots:
    void on_lstChannelClicked(int row);

private:
    QListWidgetItem* createChannelItem(QListWidget* list, const QString& name, int index, int current);

    CxExtractChannelCnbl* m_node;
    QListWidget* m_list = nullptr;
};
