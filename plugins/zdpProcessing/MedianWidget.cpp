#include "MedianWidget.h"
#include "MedianCnbl.h"

#include <QtWidgets/QFormLayout>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QSpinBox>

namespace {
// Larger kernels take seconds per frame on a camera picture.
constexpr int kMaxKernelSize = 2048;
}

CxMedianWidget::CxMedianWidget(CxMedianCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("Median Filter"));
    auto* form = new QFormLayout(this);
    auto* field = new QHBoxLayout;
    m_spin = new QSpinBox;
    m_sizeLabel = new QLabel;
    field->addWidget(m_spin);
    field->addWidget(m_sizeLabel);
    form->addRow(tr("Kernel size:"), field);

    int maximum = kMaxKernelSize;
    SxPicBufInfo in;
    if (node->currentInputImageInfo(in, nullptr))
        maximum = int(qMin<quint32>(quint32(maximum), qMin(in.width, in.height)));
    m_spin->setSingleStep(2);
    m_spin->setRange(3, maximum);
    m_spin->setValue(int(qBound<qint64>(3, 2 * qint64(node->kernelRadius()) + 1, qint64(m_spin->maximum()))));
    updateSizeLabel(m_spin->value());

    // Connected only now: showing the node's size is no choice of the user's.
    connect(m_spin, qOverload<int>(&QSpinBox::valueChanged), this, &CxMedianWidget::onSpinRadiusValueChanged);
}

CxMedianWidget::~CxMedianWidget() = default;

void CxMedianWidget::updateSizeLabel(int value)
{
    // An even size typed in filters with the odd size below it.
    const int size = value % 2 ? value : value - 1;
    m_sizeLabel->setText(QStringLiteral("%1x%1").arg(size));
    adjustSize();
}

void CxMedianWidget::onSpinRadiusValueChanged(int value)
{
    const int radius = (value - 1) / 2;
    if (radius != m_node->kernelRadius())
        nodekit::setWithRestart(m_node, true, [this, radius] { m_node->setKernelRadius(radius); });
    updateSizeLabel(value);
}
