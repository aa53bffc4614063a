#include "src/ProxyConfig.h"

#include "src/internal/ProxyRules_p.h"

#include <initializer_list>

namespace {

struct SchemeProxy
{
    QString url;                   // as given; empty: no proxy
    velanet::ProxyAddress address;
    QByteArray authorization;      // "Basic ..." or empty
};

struct Setting
{
    SchemeProxy proxies[2];        // indexed by CProxyConfig::enProxyScheme
    QByteArray noProxy;
};

// One thread drives the library (its event loop), so the setting has no lock.
Setting& TheSetting()
{
    static Setting setting;
    return setting;
}

bool MakeProxy(const QString& url, SchemeProxy& out)
{
    SchemeProxy made;
    if (!url.isEmpty()) {
        const QByteArray text = url.toUtf8();
        if (!velanet::ParseProxyUrl(text.constData(), text.size(), made.address))
            return false;
        made.url = url;
        if (made.address.hasCredentials)
            made.authorization = velanet::BasicCredentials(made.address.user, made.address.password);
    }
    out = made;
    return true;
}

// The first non-empty value of the names, in order; empty when none is.
QString FirstSet(const QProcessEnvironment& environment, std::initializer_list<const char*> names, QString& name)
{
    for (const char* candidate : names) {
        const QString value = environment.value(QString::fromLatin1(candidate));
        if (!value.isEmpty()) {
            name = QString::fromLatin1(candidate);
            return value;
        }
    }
    return QString();
}

}  // namespace

bool CProxyConfig::SetProxy(const QString& url)
{
    SchemeProxy made;
    if (!MakeProxy(url, made))
        return false;
    TheSetting().proxies[PS_Http] = made;
    TheSetting().proxies[PS_Https] = made;
    return true;
}

bool CProxyConfig::SetProxy(enProxyScheme scheme, const QString& url)
{
    SchemeProxy made;
    if (!MakeProxy(url, made))
        return false;
    TheSetting().proxies[scheme == PS_Https ? PS_Https : PS_Http] = made;
    return true;
}

QString CProxyConfig::GetProxy(enProxyScheme scheme)
{
    return TheSetting().proxies[scheme == PS_Https ? PS_Https : PS_Http].url;
}

void CProxyConfig::SetNoProxy(const QString& list)
{
    TheSetting().noProxy = list.toUtf8();
}

QString CProxyConfig::GetNoProxy()
{
    return QString::fromUtf8(TheSetting().noProxy);
}

void CProxyConfig::Clear()
{
    TheSetting() = Setting();
}

bool CProxyConfig::ApplyEnvironment(QString* error)
{
    return ApplyEnvironment(QProcessEnvironment::systemEnvironment(), error);
}

bool CProxyConfig::ApplyEnvironment(const QProcessEnvironment& environment, QString* error)
{
    Clear();
    bool usable = true;
    QString name;
    // Upper-case HTTP_PROXY is not read: a CGI program finds the client's
    // "Proxy:" request field there.
    const QString http = FirstSet(environment, {"http_proxy"}, name);
    if (!SetProxy(PS_Http, http)) {
        usable = false;
        if (error != nullptr)
            *error = name + " is not a proxy URL: " + http;
    }
    const QString https = FirstSet(environment, {"https_proxy", "HTTPS_PROXY"}, name);
    if (!SetProxy(PS_Https, https)) {
        if (usable && error != nullptr)
            *error = name + " is not a proxy URL: " + https;
        usable = false;
    }
    SetNoProxy(FirstSet(environment, {"no_proxy", "NO_PROXY"}, name));
    return usable;
}

CProxyConfig::Route CProxyConfig::RouteFor(bool secure, const char* host, int hostLen, int port)
{
    Route route;
    const Setting& setting = TheSetting();
    const SchemeProxy& proxy = setting.proxies[secure ? PS_Https : PS_Http];
    if (proxy.url.isEmpty())
        return route;
    if (velanet::NoProxyMatches(setting.noProxy.constData(), setting.noProxy.size(), host, hostLen, port))
        return route;
    route.viaProxy = true;
    route.host = proxy.address.host;
    route.port = proxy.address.port;
    route.authorization = proxy.authorization;
    return route;
}
