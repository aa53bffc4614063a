#ifndef VELANET_MLHTTPENGINETESTPEER_P_H
#define VELANET_MLHTTPENGINETESTPEER_P_H

// Read access to an HTTP engine's per-request state, which no report shows,
// for the engine's tests and fuzzers. Not part of the library's interface.

#include "src/MLHttpEngine.h"

class CMLHttpEngineTestPeer
{
public:
    static CMLHttpEngine::enHttpRecvDataMode GetRecvDataMode(const CMLHttpEngine& e) { return e.m_enHttpRecvDataMode; }
    static CMLHttpEngine::enResponsePhase GetPhase(const CMLHttpEngine& e) { return e.m_enPhase; }
    static int GetRequestedMethod(const CMLHttpEngine& e) { return e.m_nRequestedKind; }
    static const CHttpData& GetRequestData(const CMLHttpEngine& e) { return e.m_RequestData; }
    static const CHttpData& GetDNSRequestData(const CMLHttpEngine& e) { return e.m_DNSRequestData; }
    static const CHttpResponseHead& GetResponseHead(const CMLHttpEngine& e) { return e.m_ResponseHead; }
    static const CQRequestHeaderUnit& GetRequestHeaderUnit(const CMLHttpEngine& e) { return e.m_RequestHeaderUnit; }
    static const CQPostFileHeaderUnit& GetPostFileHeaderUnit(const CMLHttpEngine& e) { return e.m_PostFileHeaderUnit; }
    static const CQPostOLFileHeaderUnit& GetPostOLFileHeaderUnit(const CMLHttpEngine& e) { return e.m_OLFileHeaderUnit; }
    static bool IsHeadReceived(const CMLHttpEngine& e) { return e.m_enPhase != CMLHttpEngine::HRP_Head; }
    static long long GetBytesReceived(const CMLHttpEngine& e) { return e.m_nRecvBytes; }
    static int GetDataCallCount(const CMLHttpEngine& e) { return e.m_nDataCallCount; }
    static int GetChunkRemainder(const CMLHttpEngine& e) { return e.m_nChunkRemain; }
    static bool IsRecvToFile(const CMLHttpEngine& e) { return e.m_bRecvToFile; }
    static const CQWString& GetRecvFilePath(const CMLHttpEngine& e) { return e.m_strRecvFilePath; }
    static int GetFilterState(const CMLHttpEngine& e) { return e.m_nFilterState; }
    static int GetMultipartFlag(const CMLHttpEngine& e) { return e.m_nMultipart; }
    static int GetGatewayAttemptsLeft(const CMLHttpEngine& e) { return e.m_nGatewayAttemptsLeft; }
};

#endif
