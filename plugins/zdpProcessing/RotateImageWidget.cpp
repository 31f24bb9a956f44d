#include "RotateImageWidget.h"
#include "RotateImageCnbl.h"

#include "ui_RotateImageWidget.h"

CxRotateConfigurationWidget::CxRotateConfigurationWidget(CxRotateImageCnbl* node, QWidget* parent)
    : QWidget(parent), m_node(node), m_ui(new Ui_CxRotateConfigurationWidget)
{
    m_ui->setupUi(this);
    m_ui->clockButton->setChecked(node->clockwise());
    m_ui->counterClockButton->setChecked(!node->clockwise());
}

CxRotateConfigurationWidget::~CxRotateConfigurationWidget() = default;

void CxRotateConfigurationWidget::on_clockButton_clicked(bool checked)
{
    m_node->setRotation(checked, true);
}

void CxRotateConfigurationWidget::on_counterClockButton_clicked(bool checked)
{
    m_node->setRotation(!checked, true);
}
