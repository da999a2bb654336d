#include "readpointwatch.h"

namespace {

constexpr int looksInVain = 2;

}

bool ReadPointWatch::look(quint64 pictures, quint64 empty, qint64 newest)
{
    const bool isPublishing = m_newest != 0 && newest != 0 && newest != m_newest;
    const bool isInVain = isPublishing && empty > m_empty && pictures == m_pictures;
    m_pictures = pictures;
    m_empty = empty;
    m_newest = newest;
    m_inVain = isInVain ? m_inVain + 1 : 0;
    if (m_inVain < looksInVain)
        return false;
    m_inVain = 0;
    return true;
}
