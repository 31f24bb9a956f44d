#pragma once
#include <QtWidgets/QWidget>

class QListWidget;
class CxFFT2DCnbl;

// Configuration panel of the 2D spectrum node: the channels of the input of
// the node's last run. Picking a row sets the node's channel, stopping a
// running chain around the change so that the next run cuts the new channel.
class CxFFT2DWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxFFT2DWidget(CxFFT2DCnbl* node);
    ~CxFFT2DWidget() override;

private slots:
    void on_lstChannelClicked(int row);

private:
    CxFFT2DCnbl* m_node;
    QListWidget* m_list = nullptr;
};
