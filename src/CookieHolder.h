#ifndef VELANET_COOKIEHOLDER_H
#define VELANET_COOKIEHOLDER_H

// The cookie jar that request builders ask for the Cookie line. Requests
// hold it by pointer and never own it.
class QCookieHolder;

#endif
