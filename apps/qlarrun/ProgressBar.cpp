#include "ProgressBar.h"

#include <QtCore/QTextStream>

#include <cstdio>
#include <unistd.h>

namespace {
constexpr int BarWidth = 30;
constexpr qint64 RedrawMs = 100;
} // namespace

CxProgressBar::CxProgressBar(QTextStream& stream, qint64 total, bool enabled)
    : m_stream(stream), m_total(total), m_active(enabled && total > 1 && terminalAttached())
{
}

CxProgressBar::~CxProgressBar()
{
    clear();
}

bool CxProgressBar::terminalAttached()
{
    return isatty(fileno(stderr)) == 1;
}

QString CxProgressBar::render(qint64 done, qint64 total, int width)
{
    const qint64 shown = total > 0 ? qBound<qint64>(0, done, total) : 0;
    const int filled = total > 0 ? int(shown * width / total) : 0;
    return QStringLiteral("[%1%2] %3/%4 frames")
        .arg(QString(filled, QLatin1Char('#')), QString(width - filled, QLatin1Char('.')))
        .arg(shown, int(QString::number(total).size()))
        .arg(total);
}

void CxProgressBar::update(qint64 done)
{
    if (!m_active)
        return;
    if (m_drawn && done < m_total && m_sinceDraw.isValid() && m_sinceDraw.elapsed() < RedrawMs)
        return;
    const QString line = render(done, m_total, BarWidth);
    m_stream << '\r' << line;
    m_stream.flush();
    m_lastLength = int(line.size());
    m_drawn = true;
    m_sinceDraw.start();
}

void CxProgressBar::clear()
{
    if (!m_drawn)
        return;
    m_stream << '\r' << QString(m_lastLength, QLatin1Char(' ')) << '\r';
    m_stream.flush();
    m_drawn = false;
}
