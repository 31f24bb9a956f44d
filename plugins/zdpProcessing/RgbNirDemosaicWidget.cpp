#include "RgbNirDemosaicWidget.h"
#include "RgbNirDemosaicCnbl.h"

#include <QtWidgets/QLabel>
#include <QtWidgets/QRadioButton>
#include <QtWidgets/QVBoxLayout>

CxRgbNirDemosaicWidget::CxRgbNirDemosaicWidget(CxRgbNirDemosaicCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("RGB-NIR Demosaic"));
    auto* layout = new QVBoxLayout(this);
    // The same symbols as the quick buttons, untranslated.
    m_rbRgb = new QRadioButton(QStringLiteral("RGB"));
    m_rbNir = new QRadioButton(QStringLiteral("NIR"));
    (node->channel() == CxRgbNirDemosaicCnbl::NIR ? m_rbNir : m_rbRgb)->setChecked(true);
    for (QRadioButton* rb : {m_rbRgb, m_rbNir}) {
        layout->addWidget(rb);
        connect(rb, &QRadioButton::clicked, this, &CxRgbNirDemosaicWidget::on_rbChannelClicked);
    }
    layout->addWidget(new QLabel(tr("Expects input images in RAW format")));
}

CxRgbNirDemosaicWidget::~CxRgbNirDemosaicWidget() = default;

void CxRgbNirDemosaicWidget::on_rbChannelClicked()
{
    const bool nir = sender() == m_rbNir;
    m_node->setChannel(nir ? CxRgbNirDemosaicCnbl::NIR : CxRgbNirDemosaicCnbl::RGB, true);
}
