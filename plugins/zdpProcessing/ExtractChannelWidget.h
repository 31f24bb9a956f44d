#pragma once
#include <QtWidgets/QWidget>

class QListWidget;
class CxExtractChannelCnbl;

// Configuration panel of the extract channel node: the channels the current
// input offers, as a list. Picking a row sets the node's channel at once
// (restarting a running chain); the list is filled when the panel is made and
// does not follow later format changes or quick buttons.
class CxExtractChannelWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxExtractChannelWidget(CxExtractChannelCnbl* node);
    ~CxExtractChannelWidget() override;

private slots:
    void on_lstChannelClicked(int row);

private:
    CxExtractChannelCnbl* m_node;
    QListWidget* m_list = nullptr;
};
