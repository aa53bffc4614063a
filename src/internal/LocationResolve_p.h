#ifndef VELANET_LOCATIONRESOLVE_P_H
#define VELANET_LOCATIONRESOLVE_P_H

// Resolution of a redirect's Location against the request URL (RFC 3986,
// section 5.2, with the components of Appendix B):
//
//   URI-reference = [ scheme ":" ] [ "//" authority ] path [ "?" query ] [ "#" fragment ]
//   scheme        = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." )
//
// A Location that has a scheme, and an empty Location, are used as they
// stand; any other ("/get", "b.html", "//h/p", "?q") is resolved: merged with
// the base path and cleaned of "." and ".." segments.
//
// Everything works on (pointer, length) and never reads past the length.

#include "BaseClass/src/CQString.h"

namespace velanet {

// The parts of one URI reference, as offsets into the text; a part that is
// not defined has start -1 (an empty part that is defined has length 0).
struct UriParts
{
    int schemeStart = -1;
    int schemeLen = 0;
    int authorityStart = -1;
    int authorityLen = 0;
    int pathStart = 0;
    int pathLen = 0;
    int queryStart = -1;
    int queryLen = 0;
    int fragmentStart = -1;
    int fragmentLen = 0;
};

// Splits text[0..len) into its parts (never fails: every text is a reference).
[[nodiscard]] UriParts SplitUriReference(const char* text, int len);

// RFC 3986 section 5.2.4 over path[0..len).
[[nodiscard]] CQSString RemoveDotSegments(const char* path, int len);

// The URL to report and follow for location, given the request URL base.
[[nodiscard]] CQSString ResolveLocation(const char* base, int baseLen, const char* location, int locationLen);

// Whether url[0..len) is one the HTTP engine can request: scheme "http" or
// "https" (any case), an authority with a non-empty host (a bracketed IPv6
// literal counts), a port that is empty or at most 65535 written in
// digits, and no space, control byte or DEL anywhere. False for null or
// empty text.
[[nodiscard]] bool IsRequestableURL(const char* url, int len);

}  // namespace velanet

#endif
