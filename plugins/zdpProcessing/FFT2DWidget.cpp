#include "FFT2DWidget.h"
#include "FFT2DCnbl.h"

#include <QtWidgets/QListWidget>
#include <QtWidgets/QVBoxLayout>

CxFFT2DWidget::CxFFT2DWidget(CxFFT2DCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("FFT 2D"));
    auto* layout = new QVBoxLayout(this);
    m_list = new QListWidget;
    layout->addWidget(m_list);

    SxPicBufInfo info;
    CxImageMetadata meta;
    node->inputFormat(info, &meta);
    QList<QString> names;
    QList<int> indices;
    CxFFT2DCnbl::channelList(info, meta.hsiCameraParams(), names, indices);
    nodekit::fillChannelList(m_list, names, indices, node->channel());
    // Connected only now: filling the list is no choice of the user's.
    connect(m_list, &QListWidget::currentRowChanged, this, &CxFFT2DWidget::on_lstChannelClicked);
}

CxFFT2DWidget::~CxFFT2DWidget() = default;

void CxFFT2DWidget::on_lstChannelClicked(int row)
{
    const QListWidgetItem* item = m_list->item(row);
    if (!item)
        return;
    const int index = item->data(Qt::UserRole).toInt();
    nodekit::setWithRestart(m_node, true, [this, index] { m_node->setChannel(index); });
}
