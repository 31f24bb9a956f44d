#include "FFT2DWidget.h"
#include "FFT2DCnbl.h"
#include "NodeKit.h"

#include <CxHsiCameraParams.h>

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
    fillChannelList(m_list, node->channel(), info, meta);
    // Connected only now: filling the list is no choice of the user's.
    connect(m_list, &QListWidget::currentRowChanged, this, &CxFFT2DWidget::on_lstChannelClicked);
}

CxFFT2DWidget::~CxFFT2DWidget() = default;

QListWidgetItem* CxFFT2DWidget::createChannelItem(QListWidget* list, const QString& name, int index, int current)
{
    auto* item = new QListWidgetItem(name);
    item->setData(Qt::UserRole, index);
    list->addItem(item);
    if (index == current)
        list->setCurrentItem(item);
    return item;
}

void CxFFT2DWidget::fillChannelList(QListWidget* list, int current, const SxPicBufInfo& info,
                                    const CxImageMetadata& meta)
{
    const CxHsiCameraParams& hsi = meta.hsiCameraParams();
    const auto add = [&](int index) {
        createChannelItem(list, CxFFT2DCnbl::channelNameForIndex(index, info, &hsi), index, current);
    };
    if (info.channels > 1) {
        for (int i = 0; i < int(qMin<quint32>(info.channels, 4)); ++i)
            add(i);
    } else if (info.channels == 1 && info.storageFormat != DSF_NOT_RAW) {
        if (isTwoByTwoMosaic(info.colorFilterArray)) {
            for (int i = -1; i < 4; ++i)
                add(i);
        } else if (info.colorFilterArray == CFA_HSI_MOSAIC) {
            // As many rows as channelNameForIndex has names for.
            const int bands = hsi.bandsAcross() * hsi.bandsDown();
            for (int i = -1; i < bands; ++i)
                add(i);
        }
    }
    if (QListWidgetItem* item = list->currentItem())
        list->scrollToItem(item);
}

void CxFFT2DWidget::on_lstChannelClicked(int row)
{
    const QListWidgetItem* item = m_list->item(row);
    if (!item)
        return;
    const int index = item->data(Qt::UserRole).toInt();
    nodekit::setWithRestart(m_node, true, [this, index] { m_node->setChannel(index); });
}
