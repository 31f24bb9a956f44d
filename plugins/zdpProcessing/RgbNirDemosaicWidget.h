#pragma once
#include <QtWidgets/QWidget>

class QRadioButton;
class CxRgbNirDemosaicCnbl;

// Configuration panel of the RGB-NIR node: the output channel as two radio
// buttons. A click sets the node's channel at once (restarting a running
// chain); the panel does not follow later changes made by quick buttons.
class CxRgbNirDemosaicWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxRgbNirDemosaicWidget(CxRgbNirDemosaicCnbl* node);
    ~CxRgbNirDemosaicWidget() override;

private slots:
    void on_rbChannelClicked();

private:
    CxRgbNirDemosaicCnbl* m_node;
    QRadioButton* m_rbRgb = nullptr;
    QRadioButton* m_rbNir = nullptr;
};
