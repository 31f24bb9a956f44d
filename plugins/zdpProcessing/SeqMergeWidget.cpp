#include "SeqMergeWidget.h"

#include <CxSegmentedControl.h>

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QRadioButton>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QVBoxLayout>

CxSeqMergeWidget::CxSeqMergeWidget(CxSeqMergeCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("Merge Image Sequence"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Merge N frames into one placing then in tiles or rows next to each other.")));

    auto* countRow = new QHBoxLayout;
    m_rbCount = new QRadioButton(tr("Count:"));
    m_rbCount->setAutoExclusive(false);
    m_segments = new CxSegmentedControl;
    m_segments->setSegmentCount(2);
    m_segments->setSegmentText(0, QStringLiteral("2"));
    m_segments->setSegmentText(1, QStringLiteral("4"));
    m_segments->setSelecedSegment(node->count() == 2 ? 0 : 1);
    countRow->addWidget(m_rbCount);
    countRow->addWidget(m_segments);
    countRow->addStretch();
    layout->addLayout(countRow);

    auto* rowsRow = new QHBoxLayout;
    m_rbRows = new QRadioButton(tr("Rows:"));
    m_rbRows->setAutoExclusive(false);
    m_spinRows = new QSpinBox;
    m_spinRows->setRange(2, 10);
    m_spinRows->setValue(node->count());
    rowsRow->addWidget(m_rbRows);
    rowsRow->addWidget(m_spinRows);
    rowsRow->addStretch();
    layout->addLayout(rowsRow);

    m_cbPassComplete = new QCheckBox(tr("Output only complete sequences"));
    m_cbPassComplete->setChecked(node->passCompleteOnly());
    layout->addWidget(m_cbPassComplete);

    enableModeControls(node->mode());

    // Connected only now: showing the node's settings is no choice of the user's.
    connect(m_segments, &CxSegmentedControl::selectedSegmentChanged, this,
            &CxSeqMergeWidget::on_selectedSegmentChanged);
    connect(m_spinRows, qOverload<int>(&QSpinBox::valueChanged), this, &CxSeqMergeWidget::on_rowCountChanged);
    connect(m_cbPassComplete, &QCheckBox::toggled, this, &CxSeqMergeWidget::on_passCompleteChanged);
    connect(m_rbCount, &QRadioButton::toggled, this, &CxSeqMergeWidget::on_modeChanged);
    connect(m_rbRows, &QRadioButton::toggled, this, &CxSeqMergeWidget::on_modeChanged);
}

CxSeqMergeWidget::~CxSeqMergeWidget() = default;

void CxSeqMergeWidget::enableModeControls(CxSeqMergeCnbl::ExMode mode)
{
    const bool updating = m_updating;
    m_updating = true;
    m_rbCount->setChecked(mode == CxSeqMergeCnbl::ModeTiles);
    m_segments->setEnabled(mode == CxSeqMergeCnbl::ModeTiles);
    m_rbRows->setChecked(mode == CxSeqMergeCnbl::ModeRows);
    m_spinRows->setEnabled(mode == CxSeqMergeCnbl::ModeRows);
    m_updating = updating;
}

void CxSeqMergeWidget::on_selectedSegmentChanged()
{
    m_node->setCount(CxSeqMergeCnbl::ModeTiles, m_segments->selectedIndex() == 0 ? 2 : 4, true);
}

void CxSeqMergeWidget::on_rowCountChanged(int count)
{
    m_node->setCount(CxSeqMergeCnbl::ModeRows, count, true);
}

void CxSeqMergeWidget::on_passCompleteChanged(bool checked)
{
    // The node reads the flag on the next frame; nothing needs remaking.
    m_node->setPassCompleteOnly(checked, false);
}

void CxSeqMergeWidget::on_modeChanged(bool checked)
{
    if (m_updating)
        return;
    if (!checked) {
        // Unchecking the mode in use chooses nothing: show it again.
        enableModeControls(m_node->mode());
        return;
    }
    if (sender() == m_rbCount) {
        enableModeControls(CxSeqMergeCnbl::ModeTiles);
        on_selectedSegmentChanged();
    } else if (sender() == m_rbRows) {
        enableModeControls(CxSeqMergeCnbl::ModeRows);
        on_rowCountChanged(m_spinRows->value());
    }
}
