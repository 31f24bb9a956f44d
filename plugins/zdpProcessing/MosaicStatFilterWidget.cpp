#include "MosaicStatFilterWidget.h"
#include "MosaicStatFilterChnbl.h"

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QComboBox>
#include <QtWidgets/QFormLayout>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QVBoxLayout>

CxMosaicStatFilterWidget::CxMosaicStatFilterWidget(CxMosaicStatFilterChnbl* node)
    : QWidget(nullptr), m_node(node)
{
    using Node = CxMosaicStatFilterChnbl;
    setWindowTitle(tr("Mosaic Filter"));
    auto* layout = new QVBoxLayout(this);

    auto* form = new QFormLayout;
    m_cbStat = new QComboBox;
    for (Node::ExMosaicFilter f : {Node::Minimum, Node::Maximum, Node::Average, Node::Normalize})
        m_cbStat->addItem(Node::statString(f), int(f));
    m_cbStat->setCurrentIndex(qMax(0, m_cbStat->findData(int(node->statFilter()))));
    form->addRow(tr("Filter"), m_cbStat);
    layout->addLayout(form);

    auto* row = new QHBoxLayout;
    row->addWidget(new QLabel(tr("Interpolation")));
    m_chkInterpolation = new QCheckBox;
    m_chkInterpolation->setChecked(node->interpolation());
    row->addWidget(m_chkInterpolation);
    row->addStretch();
    layout->addLayout(row);
    updateInterpolationChk();

    // Connected only now: filling the panel is no choice of the user's.
    connect(m_cbStat, &QComboBox::currentIndexChanged, this, &CxMosaicStatFilterWidget::onStatCurrentIndexChanged);
    connect(m_chkInterpolation, &QCheckBox::clicked, this, &CxMosaicStatFilterWidget::onInterpolationStateClicked);
}

CxMosaicStatFilterWidget::~CxMosaicStatFilterWidget() = default;

void CxMosaicStatFilterWidget::onStatCurrentIndexChanged(int index)
{
    const auto filter = CxMosaicStatFilterChnbl::ExMosaicFilter(m_cbStat->itemData(index).toInt());
    if (index >= 0 && filter != m_node->statFilter())
        nodekit::setWithRestart(m_node, true, [this, filter] { m_node->setStatFilter(filter); });
    updateInterpolationChk();
}

void CxMosaicStatFilterWidget::onInterpolationStateClicked()
{
    const bool on = m_chkInterpolation->isChecked();
    if (on != m_node->interpolation())
        nodekit::setWithRestart(m_node, true, [this, on] { m_node->setInterpolation(on); });
}

void CxMosaicStatFilterWidget::updateInterpolationChk()
{
    m_chkInterpolation->setEnabled(m_cbStat->currentData().toInt() != CxMosaicStatFilterChnbl::Normalize);
}
