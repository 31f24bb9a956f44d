#pragma once
#include <QtWidgets/QWidget>

class CxImageAveragingCnbl;
class CxSegmentedControl;
class QCheckBox;
class QLabel;
class QPushButton;
class QRadioButton;
class QSpinBox;
class QVBoxLayout;

// Configuration panel of the Image Averaging node. It edits the node through
// its setters and keeps no settings of its own. A new mode, or switching the
// "all stats" option, restarts a running chain so that the node makes the
// working pictures the new choice needs (also when the mode picked is the
// current one); count, counting to infinite, scaling and line averaging take
// effect on the next frame. The segmented scaling control shows "1x" for any
// stored factor other than 10 and 100 but writes nothing until a segment is
// picked.
class CxAveratingConfigurationWgt : public QWidget
{
    Q_OBJECT
public:
    explicit CxAveratingConfigurationWgt(CxImageAveragingCnbl* node);
    ~CxAveratingConfigurationWgt() override;

private slots:
    void onRbModeClicked(bool checked);
    void onSegmScalingChanged();
    void onChkAllTogetherClicked(bool checked);
    void onChkInfiniteClicked(bool checked);
    void enableCountControls(bool infinite);
    void onBtnResetClicked();
    void onSpinValueChanged(int value);
    void onRbLineAvgClicked(bool checked);

private:
    // A radio button in layout's widget, connected to slot (a SLOT()
    // signature). Buddies share its row and are enabled only while it is
    // checked.
    QRadioButton* addRadioButton(const QString& text, const QString& objectName, QVBoxLayout* layout,
                                 const char* slot, bool checked, QWidget* buddy1 = nullptr,
                                 QWidget* buddy2 = nullptr);

    CxImageAveragingCnbl* m_node;
    QLabel* m_lblCount = nullptr;
    QSpinBox* m_spinCount = nullptr;
    QPushButton* m_btnReset = nullptr;
};
