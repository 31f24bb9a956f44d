#pragma once
#include "SeqMergeCnbl.h"

#include <QtWidgets/QWidget>

class QCheckBox;
class QRadioButton;
class QSpinBox;
class CxSegmentedControl;

// Configuration panel of the merge sequence node: tiles (2 or 4, on a
// segmented control) or rows (a count from 2 to 10), and whether only
// complete sequences leave the node. The mode buttons act as a pair although
// they are not auto-exclusive: picking one checks it and unchecks the other,
// and clicking the checked one keeps it checked.
class CxSeqMergeWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxSeqMergeWidget(CxSeqMergeCnbl* node);
    ~CxSeqMergeWidget() override;

    void enableModeControls(CxSeqMergeCnbl::ExMode mode);

private slots:
    void on_selectedSegmentChanged();
    void on_rowCountChanged(int count);
    void on_passCompleteChanged(bool checked);
    void on_modeChanged(bool checked);

private:
    CxSeqMergeCnbl* m_node;
    QRadioButton* m_rbCount = nullptr;
    QRadioButton* m_rbRows = nullptr;
    CxSegmentedControl* m_segments = nullptr;
    QSpinBox* m_spinRows = nullptr;
    QCheckBox* m_cbPassComplete = nullptr;
    // Set while the panel itself changes the mode buttons.
    bool m_updating = false;
};
