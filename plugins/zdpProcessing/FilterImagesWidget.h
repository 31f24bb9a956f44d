#pragma once
#include <QtWidgets/QWidget>

class QSpinBox;
class CxFilterImagesCnbl;

// Configuration panel of the filter images node: modulo and remainder as two
// spin boxes. The remainder box never offers a value the modulo cannot leave.
// Changes go to the node without a chain restart (the node reads both values
// on every frame), so thinning can be tuned while watching the stream.
class CxFilterImagesWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxFilterImagesWidget(CxFilterImagesCnbl* node, QWidget* parent = nullptr);
    ~CxFilterImagesWidget() override;

private slots:
    void on_spinValueChanged(int value);

private:
    CxFilterImagesCnbl* m_node;
    QSpinBox* m_spinMod = nullptr;
    QSpinBox* m_spinRem = nullptr;
};
