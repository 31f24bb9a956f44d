#pragma once
#include <QtWidgets/QWidget>

class QListWidget;
class QListWidgetItem;
class CxFFT2DCnbl;
class CxImageMetadata;
struct SxPicBufInfo;

// Configuration panel of the 2D spectrum node: the channels of the input of
// the node's last run. Picking a row sets the node's channel, stopping a
// running chain around the change so that the next run cuts the new channel.
class CxFFT2DWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxFFT2DWidget(CxFFT2DCnbl* node);
    ~CxFFT2DWidget() override;

    // Appends a row standing for channel index (kept under Qt::UserRole) and
    // makes it current when it is the node's channel. Shared with the 1D
    // panel, whose list is filled the same way.
    static QListWidgetItem* createChannelItem(QListWidget* list, const QString& name, int index, int current);
    // Fills list with the channels the node's input offers.
    static void fillChannelList(QListWidget* list, int current, const SxPicBufInfo& info,
                                const CxImageMetadata& meta);

private slots:
    void on_lstChannelClicked(int row);

private:
    CxFFT2DCnbl* m_node;
    QListWidget* m_list = nullptr;
};
