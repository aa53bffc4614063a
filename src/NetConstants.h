#ifndef VELANET_NETCONSTANTS_H
#define VELANET_NETCONSTANTS_H

// Values that more than one class of the library shares: the socket events
// that climb from the socket engine through the HTTP engine to an owner,
// the request kinds, the sizes of the pieces bytes travel in, the request
// priority an owner records, and the net error codes the HTTP engine adds.
// Each is declared here once; a value that only one class uses stays in that
// class. This header includes nothing, so every layer may include it.

namespace velanet {

// ---- socket events (event, param), as OnSocketEngine_SocketEvent gets them
// and an owner hears them (net event or net error). The HTTP engine handles
// KEventFirstHandled..KEventLastHandled and drops every other value.
enum enSocketEvent : int
{
    KEventFirstHandled = 16,
    KEventOwnerProgressA = 16,       // raised by an owner; passed on as a net event
    KEventOwnerFailureA = 17,        // raised by an owner; ends the request as a net error
    KEventOwnerFailureB = 18,        // raised by an owner; ends the request as a net error
    KEventOwnerProgressB = 20,       // raised by an owner; passed on as a net event
    KEventConnected = 32,            // TCP (and TLS) connection up: the request is sent
    KEventOwnerFailureC = 33,        // raised by an owner; ends the request as a net error
    KEventSocketError = 34,          // connect refused, reset, time-out, remote close, TLS failure
    KEventPassedThroughA = 35,       // an error an owner passes through the socket engine
    KEventHostNotResolvable = 36,    // no address from the lookup nor the DNS cache
    KEventResolved = 37,             // the lookup returned an address; connecting follows
    KEventLookupStarted = 38,        // a host lookup started
    KEventDecompressFailed = 48,     // a gzip body does not decode (also passed through)
    KEventPassedThroughB = 49,       // an error an owner passes through the socket engine
    KEventPassedThroughC = 50,       // an error an owner passes through the socket engine
    KEventRecvBufferFull = 64,       // the response head does not fit the receive buffer
    KEventLastHandled = 64,
    KEventFileLengthInvalid = 80,    // upload file unreadable: outside the handled range, dropped on purpose
    KEventFilePathEmpty = 81,        // upload file path empty: outside the handled range, dropped on purpose
};

// ---- net error codes the HTTP engine reports beyond the socket events
// (OnHttpEngine_NetError), each ending the request.
enum enEngineNetError : int
{
    KErrorTooManyRedirects = 65,      // one redirect more than CMLHttpEngine::GetMaxRedirects()
    KErrorRedirectNotStartable = 66,  // a redirect target that cannot be requested
    KErrorLengthUnrepresentable = 67, // a Content-Length that is no length or past 2^63 - 1
};

// ---- request kinds (the codes CHttpData::GetMethodData takes for GET and POST)
enum enRequestKind : int
{
    KKindNone = 16,        // no request yet
    KKindGet = 17,         // GET, partial GET, and the DNS gateway lookup
    KKindPost = 18,        // POST of a memory body
    KKindPostFile = 19,    // multipart POST of a file
    KKindPostOLFile = 20,  // resumable upload of a file
};

// ---- request id classes with fixed meanings; any other id is a download or
// another request of the owner's
constexpr int KIdCurrentPage = static_cast<int>(0xF0000000u);  // the page shown; redirects reported, not followed
constexpr int KIdPrefetch = static_cast<int>(0xE0000000u);     // a page fetched ahead; redirects reported, not followed
constexpr int KIdStyleSheet = static_cast<int>(0xC0000000u);   // a style sheet of the page
constexpr int KIdImage = static_cast<int>(0xA0000000u);        // an image of the page

// ---- sizes
// Request bytes are written, and received bytes handed up, in slices of at
// most this many bytes.
constexpr int KSliceSize = 1024;
// An HTTP engine's receive buffer: holds the response head (and a chunk-size
// line that spans reads).
constexpr int KRecvBufferSize = 10240;
// One decompressed body piece at most.
constexpr int KDecompressPieceSize = 1024;
// A resumable upload's block: its request text and the file bytes after it;
// also the default block size of an upload.
constexpr int KOLBlockSize = 20480;

// ---- priority an owner gives a waiting request (CRequestUnit); the HTTP
// engine accepts and ignores it. Lower values are more urgent.
enum enRequestPriority : int
{
    RP_Highest = 0,
    RP_High = 1,
    RP_Normal = 2,  // every request unit starts with it
    RP_Low = 3,
    RP_Lowest = 4,
};

}  // namespace velanet

#endif
