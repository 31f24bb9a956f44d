#pragma once
#include <QtWidgets/QWidget>

class QLabel;
class QSpinBox;
class CxMedianCnbl;

// Configuration panel of the median node: the kernel size in a spin box that
// steps over odd sizes, with the size in use shown beside it. The largest
// size offered is the smaller side of the current input (2048 at most, and
// 2048 before the node has seen a format). A change stops a running chain,
// sets the radius and starts it again, so the work buffer is made anew.
class CxMedianWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxMedianWidget(CxMedianCnbl* node);
    ~CxMedianWidget() override;

private slots:
    void onSpinRadiusValueChanged(int value);

private:
    void updateSizeLabel(int value);

    CxMedianCnbl* m_node;
    QSpinBox* m_spin = nullptr;
    QLabel* m_sizeLabel = nullptr;
};
