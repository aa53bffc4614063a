#include "src/ConFactorySybImp.h"

#include "BaseClass/src/QtAssert.h"
#include "src/IAPConnectEngine.h"
#include "src/TcpConnection.h"

CConFactorySybImp::CConFactorySybImp(CIAPConnectEngine* iapEngine)
    : iIapEngine(iapEngine)
{
}

CConFactorySybImp::~CConFactorySybImp()
{
    for (ITcpCon*& connection : iConnections) {
        delete connection;
        connection = nullptr;
    }
}

void CConFactorySybImp::SetIapEngine(CIAPConnectEngine* iapEngine)
{
    iIapEngine = iapEngine;
}

int CConFactorySybImp::Init()
{
    return KInitDone;
}

ITcpCon* CConFactorySybImp::GetTcpCon()
{
    if (iConnectionCount > KMaxConnections)
        return nullptr;

    CTcpConnection* connection = new CTcpConnection();
    if (connection->InitConnection(iIapEngine.data()) != CTcpConnection::KDone) {
        delete connection;
        return nullptr;
    }
    ++iConnectionCount;

    const int slot = FreeSlot();
    // More than ten live connections is a programming error. The check's
    // text and line are part of the library's contract.
    if (slot == KNoSlot)
        QT_ALWAYS_ASSERT_AT(false, "src/ConFactorySybImp", 132);
    iConnections[slot] = connection;
    return connection;
}

void CConFactorySybImp::RelTcpCon(ITcpCon* connection)
{
    const int slot = SlotOf(connection);
    if (connection == nullptr || slot == KNoSlot)
        return;
    if (connection->IsConnected())
        connection->Close();
    iConnections[slot] = nullptr;
    --iConnectionCount;
    delete connection;
}

void CConFactorySybImp::Release()
{
    for (ITcpCon* connection : iConnections) {
        if (connection != nullptr && connection->IsConnected())
            connection->Close();
    }
}

CIAPConnectEngine* CConFactorySybImp::GetIapConnectEngine() const
{
    return iIapEngine.data();
}

bool CConFactorySybImp::IsWifiAPN() const
{
    return iIapEngine != nullptr && iIapEngine->IsWifiAPN();
}

void CConFactorySybImp::GetIapName(CQWString& name)
{
    if (iIapEngine != nullptr)
        iIapEngine->GetIapName(name);
}

void CConFactorySybImp::GetApnName(CQWString& name)
{
    if (iIapEngine != nullptr)
        iIapEngine->GetApnName(name);
}

QString CConFactorySybImp::LoadDefaultIAPID()
{
    return QString();
}

void CConFactorySybImp::SaveDefaultIAPID(unsigned int id)
{
    Q_UNUSED(id);
}

void CConFactorySybImp::SetIap()
{
}

void CConFactorySybImp::RecoverIap()
{
}

void CConFactorySybImp::OnTimer()
{
}

ITcpCon* CConFactorySybImp::ConnectionAt(int slot) const
{
    if (slot < 0 || slot >= KMaxConnections)
        return nullptr;
    return iConnections[slot];
}

int CConFactorySybImp::FreeSlot() const
{
    for (int slot = 0; slot < KMaxConnections; ++slot) {
        if (iConnections[slot] == nullptr)
            return slot;
    }
    return KNoSlot;
}

int CConFactorySybImp::SlotOf(const ITcpCon* connection) const
{
    if (connection == nullptr)
        return KNoSlot;
    for (int slot = 0; slot < KMaxConnections; ++slot) {
        if (iConnections[slot] == connection)
            return slot;
    }
    return KNoSlot;
}
