#include "LutInmapWidget.h"
#include "LutInmapCnbl.h"

#include <CxLut.h>
#include <CxPicBufAPI.h>

#include <QtCore/QSignalBlocker>
#include <QtGui/QIcon>
#include <QtGui/QImage>
#include <QtGui/QPixmap>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QComboBox>
#include <QtWidgets/QDoubleSpinBox>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QVBoxLayout>

#include <cstring>
#include <limits>

namespace {

// Tables exist up to 16 bits; an unknown input gets their full range.
constexpr unsigned kUnknownInputBits = 16;

// Largest source value the spin boxes can hold for an input of `bits`
// significant bits (they count in int).
int fullScaleFor(unsigned bits)
{
    if (bits == 0)
        bits = kUnknownInputBits;
    if (bits >= 31)
        return std::numeric_limits<int>::max();
    return int((1u << bits) - 1);
}

int clampToInt(qint64 v)
{
    return int(qBound(qint64(std::numeric_limits<int>::min()), v, qint64(std::numeric_limits<int>::max())));
}

} // namespace

CxLutInmapCnblWidget::CxLutInmapCnblWidget(CxLutInmapCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("LUT Mapping"));

    SxPicBufInfo input;
    const unsigned bits = node->currentInputImageInfo(input, nullptr) ? input.bitsPerSample : 0;
    const int full = fullScaleFor(bits);

    auto* layout = new QVBoxLayout(this);

    auto* autoRow = new QHBoxLayout;
    m_chkAuto = new QCheckBox(tr("Auto min-max"));
    m_chkAuto->setObjectName(QStringLiteral("chkAutoMinMax"));
    m_chkAuto->setChecked(node->autoMinMax());
    m_lblTolerance = new QLabel(tr("Tolerance:"));
    m_spinTolerance = new QDoubleSpinBox;
    m_spinTolerance->setObjectName(QStringLiteral("spinTolerance"));
    m_spinTolerance->setRange(0.0, 100.0);
    m_spinTolerance->setDecimals(1);
    m_spinTolerance->setValue(node->autoTolerance());
    m_lblPerMille = new QLabel(tr("\u2030"));
    autoRow->addWidget(m_chkAuto);
    autoRow->addWidget(m_lblTolerance);
    autoRow->addWidget(m_spinTolerance);
    autoRow->addWidget(m_lblPerMille);
    layout->addLayout(autoRow);

    auto* windowRow = new QHBoxLayout;
    m_lblMin = new QLabel(tr("Min:"));
    m_spinMin = new QSpinBox;
    m_spinMin->setObjectName(QStringLiteral("spinMin"));
    m_spinMin->setRange(0, full - 1);
    m_spinMin->setValue(clampToInt(node->srcMin()));
    m_lblGamma = new QLabel(tr("Gamma:"));
    m_spinGamma = new QDoubleSpinBox;
    m_spinGamma->setObjectName(QStringLiteral("spinGamma"));
    m_spinGamma->setRange(0.1, 10.0);
    m_spinGamma->setSingleStep(0.1);
    m_spinGamma->setValue(node->gamma());
    m_lblMax = new QLabel(tr("Max:"));
    m_spinMax = new QSpinBox;
    m_spinMax->setObjectName(QStringLiteral("spinMax"));
    m_spinMax->setRange(1, full);
    m_spinMax->setValue(clampToInt(node->srcMax()));
    windowRow->addWidget(m_lblMin);
    windowRow->addWidget(m_spinMin);
    windowRow->addWidget(m_lblGamma);
    windowRow->addWidget(m_spinGamma);
    windowRow->addWidget(m_lblMax);
    windowRow->addWidget(m_spinMax);
    layout->addLayout(windowRow);

    m_chkMapToRgb = new QCheckBox(tr("Map to RGB"));
    m_chkMapToRgb->setObjectName(QStringLiteral("chkMapToRgb"));
    m_chkMapToRgb->setChecked(node->mapToRgb());
    layout->addWidget(m_chkMapToRgb);

    auto* pseudoRow = new QHBoxLayout;
    m_lblPseudo = new QLabel(tr("Pseudocolor:"));
    m_cmbPseudo = new QComboBox;
    m_cmbPseudo->setObjectName(QStringLiteral("cmbPseudocolor"));
    m_cmbPseudo->setIconSize(QSize(IconWidth, IconHeight));
    fillPseudocolorCombo();
    m_cmbPseudo->setCurrentIndex(node->pseudoColor() + 1);
    pseudoRow->addWidget(m_lblPseudo);
    pseudoRow->addWidget(m_cmbPseudo);
    layout->addLayout(pseudoRow);

    enableControls();

    // Connected only now: showing the node's values is no change of the user's.
    connect(m_chkAuto, &QCheckBox::clicked, this, &CxLutInmapCnblWidget::enableControls);
    connect(m_chkMapToRgb, &QCheckBox::clicked, this, &CxLutInmapCnblWidget::enableControls);
    connect(m_chkAuto, &QCheckBox::clicked, this, &CxLutInmapCnblWidget::sendToChainable);
    connect(m_chkMapToRgb, &QCheckBox::clicked, this, &CxLutInmapCnblWidget::sendToChainable);
    connect(m_spinTolerance, &QDoubleSpinBox::valueChanged, this, &CxLutInmapCnblWidget::sendToChainable);
    connect(m_spinMin, &QSpinBox::valueChanged, this, &CxLutInmapCnblWidget::sendToChainable);
    connect(m_spinGamma, &QDoubleSpinBox::valueChanged, this, &CxLutInmapCnblWidget::sendToChainable);
    connect(m_spinMax, &QSpinBox::valueChanged, this, &CxLutInmapCnblWidget::sendToChainable);
    connect(m_cmbPseudo, &QComboBox::currentIndexChanged, this, &CxLutInmapCnblWidget::sendToChainable);
}

CxLutInmapCnblWidget::~CxLutInmapCnblWidget() = default;

void CxLutInmapCnblWidget::enableControls()
{
    const bool automatic = m_chkAuto->isChecked();
    m_lblTolerance->setEnabled(automatic);
    m_spinTolerance->setEnabled(automatic);
    m_lblPerMille->setEnabled(automatic);
    m_lblMin->setEnabled(!automatic);
    m_spinMin->setEnabled(!automatic);
    m_lblMax->setEnabled(!automatic);
    m_spinMax->setEnabled(!automatic);

    const bool rgb = m_chkMapToRgb->isChecked();
    m_lblPseudo->setEnabled(rgb);
    m_cmbPseudo->setEnabled(rgb);
}

void CxLutInmapCnblWidget::sendToChainable()
{
    nodekit::setWithRestart(m_node, true, [this] { storeSettings(); });
}

void CxLutInmapCnblWidget::storeSettings()
{
    m_node->setAutoMinMax(m_chkAuto->isChecked());
    m_node->setAutoTolerance(int(m_spinTolerance->value()));
    m_node->setSrcMin(m_spinMin->value());
    m_node->setGamma(m_spinGamma->value());
    m_node->setSrcMax(m_spinMax->value());
    m_node->setMapToRgb(m_chkMapToRgb->isChecked());
    // A stored index the combo does not list is kept rather than replaced.
    if (m_cmbPseudo->currentIndex() >= 0)
        m_node->setPseudoColor(m_cmbPseudo->currentIndex() - 1);
    if (m_node->srcMin() >= m_node->srcMax()) {
        m_node->setSrcMin(m_node->srcMax() - 1);
        const QSignalBlocker block(m_spinMin);
        m_spinMin->setValue(clampToInt(m_node->srcMin()));
    }
    m_node->invalidateLuts();
}

void CxLutInmapCnblWidget::fillPseudocolorCombo()
{
    // The tables paint into a picture of their own, which is then copied
    // into the icon: its bytes B, G, R, A are those of an RGB32 image.
    SxPicBufInfo colour;
    colour.width = IconWidth;
    colour.height = IconHeight;
    colour.channels = 4;
    colour.bitsPerSample = 8;
    colour.dataType = IDT_UINT8;
    colour.isColor = true;
    SxPicBuf ramp, painted;
    if (!CxPicBufAPI::AllocPicBufFromHeap(ramp, IconWidth, IconHeight, 1, IDT_UINT8, 0, 0, 0, DSF_PACKED,
                                          CFA_NONE, false, false, 0)
        || !CxPicBufAPI::AllocPicBufFromHeap(painted, colour, false, 0)) {
        CxPicBufAPI::FreePicBuf(ramp, true);
        return;
    }
    for (int y = 0; y < IconHeight; ++y) {
        uchar* row = ramp.rowPtr(quint32(y));
        for (int x = 0; x < IconWidth; ++x)
            row[x] = uchar(x * 255 / IconWidth);
    }

    for (int index = -1; index < CxLut::pseudoColorLutCount(); ++index) {
        QImage image(IconWidth, IconHeight, QImage::Format_RGB32);
        image.fill(Qt::black);
        CxLut lut(8, 1, false, IDT_UINT8);
        if (lut.allocRgb(32)) {
            lut.setPseudoColor(index);
            if (lut.apply(&painted, &ramp, nullptr))
                for (int y = 0; y < IconHeight; ++y)
                    std::memcpy(image.scanLine(y), painted.rowPtr(quint32(y)), size_t(IconWidth) * 4);
        }
        m_cmbPseudo->addItem(QIcon(QPixmap::fromImage(image)), QString());
    }
    CxPicBufAPI::FreePicBuf(ramp, true);
    CxPicBufAPI::FreePicBuf(painted, true);
}
