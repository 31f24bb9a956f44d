#pragma once
#include <QtWidgets/QWidget>

class QComboBox;
class QDoubleSpinBox;
class QListWidget;
class CxFFT1DCnbl;

// Configuration panel of the 1D spectrum node: the channel list of the input
// of the node's last run and the plot options. Every change goes straight to
// the node; a running chain is stopped around it so that the next run
// recomputes the profile length, the bins shown and the plot.
class CxFFT1DWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxFFT1DWidget(CxFFT1DCnbl* node);
    ~CxFFT1DWidget() override;

private slots:
    void on_lstChannelClicked(int row);
    void on_cbCurrentIndexChanged(int index);
    void on_chkIncludeDcStateChanged(int state);
    void on_chkLogarithmicYStateChanged(int state);
    void on_chkShowGridXStateChanged(int state);
    void on_chkShowGridYStateChanged(int state);
    void on_chkAutoScaleYStateChanged(int state);
    void on_spinMinYValueChanged(double value);
    void on_spinMaxYValueChanged(double value);

private:
    void updateYScaling();

    CxFFT1DCnbl* m_node;
    QListWidget* m_list = nullptr;
    QDoubleSpinBox* m_spinY[2] = {nullptr, nullptr};  // min, max
};
