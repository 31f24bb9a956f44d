#include "CxSegmentedControl.h"

#include <QtWidgets/QButtonGroup>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QPushButton>

CxSegmentedControl::CxSegmentedControl(QWidget* parent)
    : QWidget(parent), m_layout(new QHBoxLayout(this)), m_group(new QButtonGroup(this))
{
    m_layout->setContentsMargins(0, 0, 0, 0);
    m_layout->setSpacing(0);
    m_group->setExclusive(true);
    // idClicked fires on user clicks only, never on setChecked from code.
    connect(m_group, &QButtonGroup::idClicked, this, [this](int) { emit selectedSegmentChanged(); });
}

void CxSegmentedControl::setSegmentCount(int count)
{
    count = qMax(0, count);
    while (m_buttons.size() > count) {
        QPushButton* b = m_buttons.takeLast();
        m_group->removeButton(b);
        delete b;
    }
    while (m_buttons.size() < count) {
        auto* b = new QPushButton(this);
        b->setCheckable(true);
        b->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        m_group->addButton(b, int(m_buttons.size()));
        m_layout->addWidget(b);
        m_buttons.append(b);
    }
}

int CxSegmentedControl::segmentCount() const { return int(m_buttons.size()); }

void CxSegmentedControl::setSegmentText(int index, const QString& text)
{
    if (index >= 0 && index < m_buttons.size())
        m_buttons[index]->setText(text);
}

QString CxSegmentedControl::segmentText(int index) const
{
    return (index >= 0 && index < m_buttons.size()) ? m_buttons[index]->text() : QString();
}

void CxSegmentedControl::setSelecedSegment(int index)
{
    if (index >= 0 && index < m_buttons.size()) {
        m_buttons[index]->setChecked(true);
        return;
    }
    // An exclusive group refuses to uncheck its last checked button.
    m_group->setExclusive(false);
    for (QPushButton* b : m_buttons)
        b->setChecked(false);
    m_group->setExclusive(true);
}

int CxSegmentedControl::selectedIndex() const { return m_group->checkedId(); }
