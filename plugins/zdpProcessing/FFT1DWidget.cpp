#include "FFT1DWidget.h"
#include "FFT1DCnbl.h"
#include "FFT2DCnbl.h"

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QComboBox>
#include <QtWidgets/QDoubleSpinBox>
#include <QtWidgets/QGridLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QListWidget>
#include <QtWidgets/QVBoxLayout>

CxFFT1DWidget::CxFFT1DWidget(CxFFT1DCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("FFT 1D"));
    auto* outer = new QVBoxLayout(this);
    m_list = new QListWidget;
    outer->addWidget(m_list);
    auto* grid = new QGridLayout;
    outer->addLayout(grid);

    SxPicBufInfo info;
    CxImageMetadata meta;
    node->inputFormat(info, &meta);
    QList<QString> names;
    QList<int> indices;
    CxFFT2DCnbl::channelList(info, meta.hsiCameraParams(), names, indices);
    nodekit::fillChannelList(m_list, names, indices, node->channel());

    int row = 0;
    auto* type = new QComboBox;
    type->addItem(tr("Mean of rows"), int(CxFFT1DCnbl::rows));
    type->addItem(tr("Mean of cols"), int(CxFFT1DCnbl::cols));
    type->setCurrentIndex(qMax(0, type->findData(int(node->transformType()))));
    grid->addWidget(new QLabel(tr("Type")), row, 0);
    grid->addWidget(type, row++, 1, 1, 3);

    const auto addCheck = [&](const QString& text, bool on, void (CxFFT1DWidget::*slot)(int)) {
        auto* check = new QCheckBox;
        check->setChecked(on);
        grid->addWidget(new QLabel(text), row, 0);
        grid->addWidget(check, row++, 1);
        connect(check, &QCheckBox::stateChanged, this, slot);
    };
    addCheck(tr("Include DC"), node->includeDC(), &CxFFT1DWidget::on_chkIncludeDcStateChanged);
    addCheck(tr("Logarithmic Y"), node->axisYLogarithmic(), &CxFFT1DWidget::on_chkLogarithmicYStateChanged);
    addCheck(tr("Show grid X"), node->gridXVisible(), &CxFFT1DWidget::on_chkShowGridXStateChanged);
    addCheck(tr("Show grid Y"), node->gridYVisible(), &CxFFT1DWidget::on_chkShowGridYStateChanged);
    addCheck(tr("Autoscale Y"), node->autoScaleY(), &CxFFT1DWidget::on_chkAutoScaleYStateChanged);

    const QString spinTexts[2] = {tr("Min Y"), tr("Max Y")};
    const double values[2] = {node->minY(), node->maxY()};
    void (CxFFT1DWidget::*const spinSlots[2])(double) = {&CxFFT1DWidget::on_spinMinYValueChanged,
                                                        &CxFFT1DWidget::on_spinMaxYValueChanged};
    for (int i = 0; i < 2; ++i) {
        auto* spin = new QDoubleSpinBox;
        spin->setRange(-1000000.0, 10000000.0);
        spin->setDecimals(1);
        spin->setValue(values[i]);
        grid->addWidget(new QLabel(spinTexts[i]), row, 0);
        grid->addWidget(spin, row++, 1);
        connect(spin, &QDoubleSpinBox::valueChanged, this, spinSlots[i]);
        m_spinY[i] = spin;
    }

    // Connected only now: filling the controls is no choice of the user's.
    connect(m_list, &QListWidget::currentRowChanged, this, &CxFFT1DWidget::on_lstChannelClicked);
    connect(type, &QComboBox::currentIndexChanged, this, &CxFFT1DWidget::on_cbCurrentIndexChanged);
    updateYScaling();
}

CxFFT1DWidget::~CxFFT1DWidget() = default;

void CxFFT1DWidget::updateYScaling()
{
    const bool fixed = !m_node->autoScaleY();
    for (QDoubleSpinBox* spin : m_spinY)
        spin->setEnabled(fixed);
}

void CxFFT1DWidget::on_lstChannelClicked(int row)
{
    auto* list = qobject_cast<QListWidget*>(sender());
    const QListWidgetItem* item = list ? list->item(row) : nullptr;
    if (!item)
        return;
    const int index = item->data(Qt::UserRole).toInt();
    nodekit::setWithRestart(m_node, true, [&] { m_node->setChannel(index); });
}

void CxFFT1DWidget::on_cbCurrentIndexChanged(int index)
{
    auto* combo = qobject_cast<QComboBox*>(sender());
    if (!combo || index < 0)
        return;
    const auto type = CxFFT1DCnbl::ExTransformType(combo->itemData(index).toInt());
    nodekit::setWithRestart(m_node, true, [&] { m_node->setTranformType(type); });
}

void CxFFT1DWidget::on_chkIncludeDcStateChanged(int state)
{
    if (qobject_cast<QCheckBox*>(sender()))
        nodekit::setWithRestart(m_node, true, [&] { m_node->setIncludeDC(state != Qt::Unchecked); });
}

void CxFFT1DWidget::on_chkLogarithmicYStateChanged(int state)
{
    if (qobject_cast<QCheckBox*>(sender()))
        nodekit::setWithRestart(m_node, true, [&] { m_node->setAxisYLogarithmic(state != Qt::Unchecked); });
}

void CxFFT1DWidget::on_chkShowGridXStateChanged(int state)
{
    if (qobject_cast<QCheckBox*>(sender()))
        nodekit::setWithRestart(m_node, true, [&] { m_node->setGridXVisible(state != Qt::Unchecked); });
}

void CxFFT1DWidget::on_chkShowGridYStateChanged(int state)
{
    if (qobject_cast<QCheckBox*>(sender()))
        nodekit::setWithRestart(m_node, true, [&] { m_node->setGridYVisible(state != Qt::Unchecked); });
}

void CxFFT1DWidget::on_chkAutoScaleYStateChanged(int state)
{
    if (!qobject_cast<QCheckBox*>(sender()))
        return;
    nodekit::setWithRestart(m_node, true, [&] { m_node->setAutoScaleY(state != Qt::Unchecked); });
    updateYScaling();
}

void CxFFT1DWidget::on_spinMinYValueChanged(double value)
{
    if (qobject_cast<QDoubleSpinBox*>(sender()))
        nodekit::setWithRestart(m_node, true, [&] { m_node->setMinY(value); });
}

void CxFFT1DWidget::on_spinMaxYValueChanged(double value)
{
    if (qobject_cast<QDoubleSpinBox*>(sender()))
        nodekit::setWithRestart(m_node, true, [&] { m_node->setMaxY(value); });
}
