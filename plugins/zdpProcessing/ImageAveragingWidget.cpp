#include "ImageAveragingWidget.h"
#include "ImageAveragingCnbl.h"

#include <CxSegmentedControl.h>

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QGroupBox>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QRadioButton>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QVBoxLayout>

#include <limits>

namespace {

struct SxModeRadio
{
    const char* objectName;
    CxImageAveragingCnbl::ExMode mode;
};
const SxModeRadio kModeRadios[] = {
    {"rbModeAvg", CxImageAveragingCnbl::ModeAverage},
    {"rbModeSubAvg", CxImageAveragingCnbl::ModeSubtractAverage},
    {"rbModeStDev", CxImageAveragingCnbl::ModeStDev},
    {"rbModeMin", CxImageAveragingCnbl::ModeMin},
    {"rbModeMax", CxImageAveragingCnbl::ModeMax},
    {"rbModeMinTouches", CxImageAveragingCnbl::ModeMinTouches},
};

} // namespace

CxAveratingConfigurationWgt::CxAveratingConfigurationWgt(CxImageAveragingCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("Image Averaging"));
    setObjectName(QStringLiteral("CxAveratingConfigurationWgt"));
    auto* mainLayout = new QVBoxLayout(this);

    auto* boxMode = new QGroupBox(tr("Statistics per Pixel"), this);
    boxMode->setObjectName(QStringLiteral("boxMode"));
    auto* modeLayout = new QVBoxLayout(boxMode);
    mainLayout->addWidget(boxMode);

    const CxImageAveragingCnbl::ExMode mode = node->mode();
    const char* modeSlot = SLOT(onRbModeClicked(bool));
    const QString modeTexts[] = {tr("Average"), tr("Subtract from last average"), tr("StDev"),
                                 tr("Min"), tr("Max"), tr("Min touches count")};
    for (int i = 0; i < int(std::size(kModeRadios)); ++i) {
        const SxModeRadio& r = kModeRadios[i];
        if (r.mode != CxImageAveragingCnbl::ModeStDev) {
            addRadioButton(modeTexts[i], QLatin1String(r.objectName), modeLayout, modeSlot, mode == r.mode);
            continue;
        }
        auto* lblScaling = new QLabel(tr("Scale values:"), boxMode);
        lblScaling->setObjectName(QStringLiteral("lblScaling"));
        auto* segmScaling = new CxSegmentedControl(boxMode);
        segmScaling->setObjectName(QStringLiteral("segmScaling"));
        segmScaling->setSegmentCount(3);
        segmScaling->setSegmentText(0, tr("1x"));
        segmScaling->setSegmentText(1, tr("10x"));
        segmScaling->setSegmentText(2, tr("100x"));
        const int scaling = node->stDevValuesScaling();
        segmScaling->setSelecedSegment(scaling == 10 ? 1 : scaling == 100 ? 2 : 0);
        connect(segmScaling, &CxSegmentedControl::selectedSegmentChanged, this,
                &CxAveratingConfigurationWgt::onSegmScalingChanged);
        addRadioButton(modeTexts[i], QLatin1String(r.objectName), modeLayout, modeSlot, mode == r.mode,
                       lblScaling, segmScaling);
    }

    auto* chkAllTogether = new QCheckBox(tr("Calculate all stats, switch without chain stop (slower)"), this);
    chkAllTogether->setObjectName(QStringLiteral("chkAllTogether"));
    chkAllTogether->setChecked(node->isCalcAllModesTogether());
    connect(chkAllTogether, &QCheckBox::clicked, this, &CxAveratingConfigurationWgt::onChkAllTogetherClicked);
    mainLayout->addWidget(chkAllTogether);

    auto* infiniteRow = new QHBoxLayout;
    auto* chkInfinite = new QCheckBox(tr("Calculate until Reset button clicked"), this);
    chkInfinite->setObjectName(QStringLiteral("chkInfinite"));
    chkInfinite->setChecked(node->isCountingToInfinite());
    connect(chkInfinite, &QCheckBox::clicked, this, &CxAveratingConfigurationWgt::onChkInfiniteClicked);
    m_btnReset = new QPushButton(tr("Reset"), this);
    m_btnReset->setObjectName(QStringLiteral("btnReset"));
    connect(m_btnReset, &QPushButton::clicked, this, &CxAveratingConfigurationWgt::onBtnResetClicked);
    infiniteRow->addWidget(chkInfinite);
    infiniteRow->addWidget(m_btnReset);
    mainLayout->addLayout(infiniteRow);

    auto* countRow = new QHBoxLayout;
    m_lblCount = new QLabel(tr("Number of images to average:"), this);
    m_lblCount->setObjectName(QStringLiteral("lblCount"));
    m_spinCount = new QSpinBox(this);
    m_spinCount->setObjectName(QStringLiteral("spinCount"));
    m_spinCount->setRange(1, std::numeric_limits<int>::max());
    m_spinCount->setValue(node->countToAverage());
    connect(m_spinCount, qOverload<int>(&QSpinBox::valueChanged), this,
            &CxAveratingConfigurationWgt::onSpinValueChanged);
    countRow->addWidget(m_lblCount);
    countRow->addWidget(m_spinCount);
    mainLayout->addLayout(countRow);
    enableCountControls(chkInfinite->isChecked());

    auto* boxLine = new QGroupBox(tr("Line Averaging"), this);
    boxLine->setObjectName(QStringLiteral("boxLineAveraging"));
    auto* lineLayout = new QVBoxLayout(boxLine);
    mainLayout->addWidget(boxLine);
    const CxImageAveragingCnbl::ExLineAveraging line = node->lineAveraging();
    const char* lineSlot = SLOT(onRbLineAvgClicked(bool));
    addRadioButton(tr("None"), QStringLiteral("rbNone"), lineLayout, lineSlot,
                   line == CxImageAveragingCnbl::LineAvgNone);
    addRadioButton(tr("Rows"), QStringLiteral("rbRows"), lineLayout, lineSlot,
                   line == CxImageAveragingCnbl::LineAvgRows);
    addRadioButton(tr("Columns"), QStringLiteral("rbCols"), lineLayout, lineSlot,
                   line == CxImageAveragingCnbl::LineAvgColumns);
}

CxAveratingConfigurationWgt::~CxAveratingConfigurationWgt() = default;

QRadioButton* CxAveratingConfigurationWgt::addRadioButton(const QString& text, const QString& objectName,
                                                          QVBoxLayout* layout, const char* slot, bool checked,
                                                          QWidget* buddy1, QWidget* buddy2)
{
    auto* radio = new QRadioButton(text, layout->parentWidget());
    radio->setObjectName(objectName);
    radio->setChecked(checked);
    connect(radio, SIGNAL(clicked(bool)), this, slot);
    if (!buddy1 && !buddy2) {
        layout->addWidget(radio);
        return radio;
    }
    auto* row = new QHBoxLayout;
    row->addWidget(radio);
    for (QWidget* buddy : {buddy1, buddy2}) {
        if (!buddy)
            continue;
        row->addWidget(buddy);
        buddy->setEnabled(checked);
        connect(radio, &QRadioButton::toggled, buddy, &QWidget::setEnabled);
    }
    layout->addLayout(row);
    return radio;
}

void CxAveratingConfigurationWgt::onRbModeClicked(bool checked)
{
    if (!checked)
        return;
    auto* radio = qobject_cast<QRadioButton*>(sender());
    if (!radio)
        return;
    if (QObject* parent = radio->parent()) {
        for (QRadioButton* other : parent->findChildren<QRadioButton*>(QString(), Qt::FindDirectChildrenOnly))
            if (other != radio)
                other->setChecked(false);
    }
    CxImageAveragingCnbl::ExMode mode = CxImageAveragingCnbl::ModeAverage;
    for (const SxModeRadio& r : kModeRadios)
        if (radio->objectName() == QLatin1String(r.objectName))
            mode = r.mode;
    nodekit::setWithRestart(m_node, true, [&] { m_node->setMode(mode); });
}

void CxAveratingConfigurationWgt::onSegmScalingChanged()
{
    auto* segm = qobject_cast<CxSegmentedControl*>(sender());
    const int index = segm ? segm->selectedIndex() : -1;
    m_node->setStDevValuesScaling(index == 1 ? 10 : index == 2 ? 100 : 1);
}

void CxAveratingConfigurationWgt::onChkAllTogetherClicked(bool checked)
{
    nodekit::setWithRestart(m_node, true, [&] { m_node->setCalcAllModesTogether(checked); });
}

void CxAveratingConfigurationWgt::onChkInfiniteClicked(bool checked)
{
    enableCountControls(checked);
    m_node->setCountingToInfinite(checked);
}

void CxAveratingConfigurationWgt::enableCountControls(bool infinite)
{
    m_btnReset->setEnabled(infinite);
    m_lblCount->setEnabled(!infinite);
    m_spinCount->setEnabled(!infinite);
}

void CxAveratingConfigurationWgt::onBtnResetClicked()
{
    m_node->averagingReset();
}

void CxAveratingConfigurationWgt::onSpinValueChanged(int value)
{
    m_node->setCountToAverage(value);
}

void CxAveratingConfigurationWgt::onRbLineAvgClicked(bool checked)
{
    auto* radio = qobject_cast<QRadioButton*>(sender());
    if (!checked || !radio)
        return;
    const QString name = radio->objectName();
    if (name == QLatin1String("rbNone"))
        m_node->setLineAveraging(CxImageAveragingCnbl::LineAvgNone);
    else if (name == QLatin1String("rbRows"))
        m_node->setLineAveraging(CxImageAveragingCnbl::LineAvgRows);
    else if (name == QLatin1String("rbCols"))
        m_node->setLineAveraging(CxImageAveragingCnbl::LineAvgColumns);
}
