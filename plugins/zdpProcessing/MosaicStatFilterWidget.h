#pragma once
#include <QtWidgets/QWidget>

class QCheckBox;
class QComboBox;
class CxMosaicStatFilterChnbl;

// Configuration panel of the mosaic filter node: the statistic and the
// interpolation switch (which Normalize ignores, so it is disabled then).
// A change is applied at once; a running chain is stopped around it so the
// output size is negotiated again.
class CxMosaicStatFilterWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxMosaicStatFilterWidget(CxMosaicStatFilterChnbl* node);
    ~CxMosaicStatFilterWidget() override;

private slots:
    void onStatCurrentIndexChanged(int index);
    void onInterpolationStateClicked();

private:
    void updateInterpolationChk();

    CxMosaicStatFilterChnbl* m_node;
    QComboBox* m_cbStat = nullptr;
    QCheckBox* m_chkInterpolation = nullptr;
};
