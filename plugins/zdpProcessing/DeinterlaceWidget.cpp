#include "DeinterlaceWidget.h"
#include "DeinterlaceCnbl.h"

#include <QtWidgets/QRadioButton>
#include <QtWidgets/QVBoxLayout>

CxDeinterlaceWidget::CxDeinterlaceWidget(CxDeinterlaceCnbl* node)
    : QWidget(nullptr), m_node(node)
{
    setWindowTitle(tr("Deinterlace"));
    auto* layout = new QVBoxLayout(this);

    const QString texts[] = {
        tr("Odd row indices (0, 2, 4, 6, ...)"),
        tr("Even row indices (1, 3, 5, 7, ...)"),
        tr("Resort, odd rows first (0, 2, 4, 6, ..., 1, 3, 5, 7, ...)"),
        tr("Resort, even rows first (1, 3, 5, 7, ..., 0, 2, 4, 6, ...)"),
    };
    const int current = node->transform();
    for (int i = 0; i < int(m_radios.size()); ++i)
        m_radios[i] = createTransformItem(layout, texts[i], i == current);
}

CxDeinterlaceWidget::~CxDeinterlaceWidget() = default;

QRadioButton* CxDeinterlaceWidget::createTransformItem(QVBoxLayout* layout, const QString& text,
                                                       bool checked)
{
    // Parented to this widget through the layout, so the four buttons form
    // one auto-exclusive group.
    auto* radio = new QRadioButton(text);
    radio->setChecked(checked);
    layout->addWidget(radio);
    connect(radio, &QRadioButton::clicked, this, &CxDeinterlaceWidget::on_radioClicked);
    return radio;
}

void CxDeinterlaceWidget::on_radioClicked()
{
    auto* radio = qobject_cast<QRadioButton*>(sender());
    for (int i = 0; i < int(m_radios.size()); ++i) {
        if (radio && m_radios[i] == radio) {
            m_node->setTransform(CxDeinterlaceCnbl::ExTransformType(i), true);
            return;
        }
    }
}
