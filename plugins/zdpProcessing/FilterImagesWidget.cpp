#include "FilterImagesWidget.h"
#include "FilterImagesCnbl.h"

#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QVBoxLayout>

CxFilterImagesWidget::CxFilterImagesWidget(CxFilterImagesCnbl* node, QWidget* parent)
    : QWidget(parent), m_node(node)
{
    setWindowTitle(tr("Filter Images"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Pass images with certain frame numbers, skip (M-1) frames")));

    auto* row = new QHBoxLayout;
    layout->addLayout(row);
    row->addWidget(new QLabel(tr("nframe modulo")));

    const int modulo = node->filterModulo();
    m_spinMod = new QSpinBox;
    m_spinMod->setObjectName(QStringLiteral("spinMod"));
    m_spinMod->setToolTip(tr("modulo"));
    m_spinMod->setRange(1, 9999);
    m_spinMod->setSingleStep(1);
    m_spinMod->setValue(modulo);
    row->addWidget(m_spinMod);

    row->addWidget(new QLabel(tr(" =")));

    m_spinRem = new QSpinBox;
    m_spinRem->setObjectName(QStringLiteral("spinRem"));
    m_spinRem->setToolTip(tr("remainder"));
    // A modulo below 1 can only come from a chain document.
    m_spinRem->setRange(0, modulo > 0 ? modulo - 1 : 0);
    m_spinRem->setSingleStep(1);
    m_spinRem->setValue(node->filterRemainder());
    row->addWidget(m_spinRem);

    // Connected only now: showing the node's values is no change of the user's.
    connect(m_spinMod, &QSpinBox::valueChanged, this, &CxFilterImagesWidget::on_spinValueChanged);
    connect(m_spinRem, &QSpinBox::valueChanged, this, &CxFilterImagesWidget::on_spinValueChanged);
}

CxFilterImagesWidget::~CxFilterImagesWidget() = default;

void CxFilterImagesWidget::on_spinValueChanged(int value)
{
    if (sender() == m_spinMod) {
        // Lowering the maximum may pull the remainder down, which arrives
        // here as a remainder change first; the pair below is the final one.
        m_spinRem->setMaximum(value - 1);
        if (value <= m_spinRem->value())
            m_spinRem->setValue(value - 1);
        m_node->setFilterModulo(value, m_spinRem->value(), false);
    } else if (sender() == m_spinRem) {
        m_node->setFilterModulo(-1, value, false);
    }
}
