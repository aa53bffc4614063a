// CApnDialog: the access point picker.

#include "src/ApnDialog.h"

#include "src/IAPConnectEngine.h"

#include <QApplication>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QDesktopWidget>
#endif
#include <QHBoxLayout>
#include <QListWidget>
#include <QListWidgetItem>
#include <QPalette>
#include <QScrollArea>

namespace {

const char KDialogTitle[] = "Select access point";

// A handset-sized portrait window; the layout may grow it.
constexpr int KDialogWidth = 240;
constexpr int KDialogHeight = 320;

}  // namespace

CApnDialog::CApnDialog(const QVector<QString>& names, SelectIAPObserver* observer)
    : m_pObserver(observer)
{
    // The list starts out under the desktop widget; the scroll area takes it
    // over below, so the dialog owns it in the end. Qt 6 has no desktop
    // widget: there the list starts without a parent, with the same result.
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    m_pListWidget = new QListWidget(QApplication::desktop());
#else
    m_pListWidget = new QListWidget;
#endif
    m_pScrollArea = new QScrollArea;
    m_pScrollArea->setBackgroundRole(QPalette::Dark);
    m_pScrollArea->setWidget(m_pListWidget);
    // The list fills the area instead of keeping its own size hint.
    m_pScrollArea->setWidgetResizable(true);
    m_pLayout = new QHBoxLayout;
    m_pLayout->addWidget(m_pScrollArea);

    int row = 0;
    for (const QString& name : names)
        m_pListWidget->insertItem(row++, name);

    connect(m_pListWidget, &QListWidget::itemClicked, this, &CApnDialog::listview_itemClicked);
    setLayout(m_pLayout);

    setWindowTitle(QString::fromLatin1(KDialogTitle));
    resize(KDialogWidth, KDialogHeight);
}

// The widgets and the layout are children of the dialog and go with it.
CApnDialog::~CApnDialog() = default;

void CApnDialog::SetSelectIap(QString name)
{
    const int count = m_pListWidget->count();
    for (int row = 0; row < count; ++row) {
        QListWidgetItem* item = m_pListWidget->item(row);
        if (item->text() == name) {
            item->setSelected(true);
            return;
        }
    }
}

void CApnDialog::listview_itemClicked(QListWidgetItem* item)
{
    if (item == nullptr)
        return;
    QString name = item->text();
    if (m_pObserver != nullptr)
        m_pObserver->onSelectedIAPName(name);
    close();
}
