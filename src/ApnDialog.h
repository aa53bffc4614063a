#ifndef VELANET_APNDIALOG_H
#define VELANET_APNDIALOG_H

// The access point picker: a dialog with one list of access point names.
// A click on a row hands the row's text to the SelectIAPObserver and closes
// the dialog.
//
// Lifetime. The observer is not owned and must outlive the dialog. The
// report comes from inside the list's click handling, so an observer that
// wants the dialog gone uses deleteLater(), never delete.

#include <QDialog>
#include <QString>
#include <QVector>

class QHBoxLayout;
class QListWidget;
class QListWidgetItem;
class QScrollArea;
class SelectIAPObserver;

// Handset font families meant for the picker's rows. The dialog does not
// apply them: desktop systems do not have them, and Qt would fall back to a
// substitute anyway.
inline constexpr char KApnFontFamilyPlain16[] = "CombinedChinesePlain16";
inline constexpr char KApnFontFamilyPlain12[] = "CombinedChinesePlain12";

class CApnDialog : public QDialog
{
    Q_OBJECT

public:
    // Builds the list with names as rows 0, 1, 2, ... in order. observer
    // may be null; a click then only closes the dialog.
    CApnDialog(const QVector<QString>& names, SelectIAPObserver* observer);
    ~CApnDialog() override;

    CApnDialog(const CApnDialog&) = delete;
    CApnDialog& operator=(const CApnDialog&) = delete;

    // Marks selected the first row whose text equals name exactly; nothing
    // when no row matches. Other rows keep their selection state.
    void SetSelectIap(QString name);

public slots:
    // Reports the item's text to the observer, then closes the dialog.
    void listview_itemClicked(QListWidgetItem* item);

private:
    QListWidget* m_pListWidget = nullptr;
    QScrollArea* m_pScrollArea = nullptr;
    QHBoxLayout* m_pLayout = nullptr;

protected:
    // Reserved for later use; always null.
    void* m_pReserved = nullptr;

private:
    SelectIAPObserver* m_pObserver = nullptr;
};

#endif
