#include "src/GzipHeader.h"

#include "BaseClass/src/QtAssert.h"

#include <cstring>

namespace {

const char KAssertFile[] = "src/GzipHeader";

const unsigned char KGzipId1 = 0x1F;
const unsigned char KGzipId2 = 0x8B;
const unsigned char KMethodDeflate = 8;
const int KBitsPerByte = 8;

}  // namespace

void CGzipHeader::Reset()
{
    m_enState = GHS_Id1;
    m_nFlags = 0;
    m_nExtraLeft = 0;
}

int CGzipHeader::ReadMore(const char* inbuf, int inbufLen, const char** bodyStart)
{
    QT_ALWAYS_ASSERT(inbufLen != 0, KAssertFile);

    const int usable = (inbuf && inbufLen > 0) ? inbufLen : 0;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(inbuf);
    const unsigned char* const end = p + usable;

    while (p < end) {
        switch (m_enState) {
        case GHS_Id1:
            if (*p++ != KGzipId1)
                return KHeaderInvalid;
            m_enState = GHS_Id2;
            continue;
        case GHS_Id2:
            if (*p++ != KGzipId2)
                return KHeaderInvalid;
            m_enState = GHS_Method;
            continue;
        case GHS_Method:
            if (*p++ != KMethodDeflate)
                return KHeaderInvalid;
            m_enState = GHS_Flags;
            continue;
        case GHS_Flags:
            m_nFlags = static_cast<std::uint16_t>(*p++ & KFlagsKept);
            m_enState = GHS_Time0;
            continue;
        case GHS_Time0:
        case GHS_Time1:
        case GHS_Time2:
        case GHS_Time3:
        case GHS_ExtraFlags:
            // Fixed single bytes, each followed by the next state in order.
            ++p;
            m_enState = static_cast<TGzipHeaderState>(m_enState + 1);
            continue;
        case GHS_Os:
            ++p;
            m_enState = GHS_ExtraLenLow;
            continue;
        case GHS_ExtraLenLow:
            if (m_nFlags & KFlagExtra) {
                m_nExtraLeft = *p++;
                m_enState = GHS_ExtraLenHigh;
            } else {
                m_enState = GHS_Name;
            }
            continue;
        case GHS_ExtraLenHigh:
            m_nExtraLeft = static_cast<std::uint16_t>(m_nExtraLeft | (*p++ << KBitsPerByte));
            m_enState = GHS_Extra;
            continue;
        case GHS_Extra: {
            const int atHand = static_cast<int>(end - p);
            const int take = m_nExtraLeft < atHand ? m_nExtraLeft : atHand;
            p += take;
            m_nExtraLeft = static_cast<std::uint16_t>(m_nExtraLeft - take);
            if (m_nExtraLeft == 0) {
                m_nFlags = static_cast<std::uint16_t>(m_nFlags & ~KFlagExtra);
                m_enState = GHS_Name;
            }
            continue;
        }
        case GHS_Name:
            if (m_nFlags & KFlagName) {
                if (!SkipThroughZero(p, end))
                    continue;
                m_nFlags = static_cast<std::uint16_t>(m_nFlags & ~KFlagName);
            }
            m_enState = GHS_Comment;
            continue;
        case GHS_Comment:
            if (m_nFlags & KFlagComment) {
                if (!SkipThroughZero(p, end))
                    continue;
                m_nFlags = static_cast<std::uint16_t>(m_nFlags & ~KFlagComment);
            }
            m_enState = GHS_HeaderCrc1;
            continue;
        case GHS_HeaderCrc1:
            if (m_nFlags & KFlagHeaderCrc) {
                ++p;
                m_enState = GHS_HeaderCrc2;
            } else {
                m_enState = GHS_Done;
            }
            continue;
        case GHS_HeaderCrc2:
            ++p;
            m_nFlags = static_cast<std::uint16_t>(m_nFlags & ~KFlagHeaderCrc);
            m_enState = GHS_Done;
            continue;
        case GHS_Done:
            if (bodyStart)
                *bodyStart = reinterpret_cast<const char*>(p);
            return KHeaderComplete;
        }
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
        return KHeaderInvalid;
    }

    // Input used up. Past the fixed part with no optional field pending,
    // every remaining state takes no byte: the header is complete.
    if (m_enState > GHS_Os && (m_nFlags & KFlagsKept) == 0) {
        m_enState = GHS_Done;
        if (bodyStart)
            *bodyStart = reinterpret_cast<const char*>(end);
        return KHeaderComplete;
    }
    return KHeaderIncomplete;
}

bool CGzipHeader::SkipThroughZero(const unsigned char*& p, const unsigned char* end)
{
    const void* zero = std::memchr(p, 0, static_cast<size_t>(end - p));
    if (!zero) {
        p = end;
        return false;
    }
    p = static_cast<const unsigned char*>(zero) + 1;
    return true;
}
