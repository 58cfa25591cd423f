#include "controlaccessible.h"

#include <QAccessible>
#include <QAccessibleObject>
#include <QQuickItem>
#include <QQuickWindow>

using namespace Qt::StringLiterals;

namespace {
enum class Kind { Button, ComboBox, ProgressBar, BusyIndicator };

// What the view declared through `Accessible.*`: Qt keeps it in an attached object,
// a child of the item, that no public interface reaches.
QObject *declared(const QObject *item)
{
    const auto children = item->children();
    for (QObject *child : children)
        if (qstrcmp(child->metaObject()->className(), "QQuickAccessibleAttached") == 0)
            return child;
    return nullptr;
}

// Qt 6.4 tells nothing when a picker's choice changes. AT-SPI readers hear a value
// change (the bridge turns it into a name and a selection change for a combo box) and
// a change of the text they read the choice from.
class ChoiceAnnouncer : public QObject
{
    Q_OBJECT
public:
    explicit ChoiceAnnouncer(QQuickItem *picker) : QObject(picker), m_shown(shown())
    {
        connect(picker, SIGNAL(displayTextChanged()), this, SLOT(announce()));
    }

private Q_SLOTS:
    void announce()
    {
        const QString now = shown();
        if (now == m_shown)
            return;
        QAccessibleTextUpdateEvent text(parent(), 0, m_shown, now);
        QAccessible::updateAccessibility(&text);
        QAccessibleValueChangeEvent value(parent(), now);
        QAccessible::updateAccessibility(&value);
        m_shown = now;
    }

private:
    QString shown() const { return parent()->property("displayText").toString(); }
    QString m_shown;
};

class ControlAccessible : public QAccessibleObject,
                          public QAccessibleActionInterface,
                          public QAccessibleValueInterface,
                          public QAccessibleTextInterface
{
public:
    ControlAccessible(QQuickItem *item, Kind kind) : QAccessibleObject(item), m_kind(kind)
    {
        if (kind == Kind::ComboBox)
            new ChoiceAnnouncer(item);
    }

    QQuickItem *item() const { return static_cast<QQuickItem *>(object()); }

    QWindow *window() const override { return item()->window(); }

    // The nearest ancestor a reader knows, as Qt's own items answer.
    QAccessibleInterface *parent() const override
    {
        QQuickWindow *window = item()->window();
        for (QQuickItem *up = item()->parentItem(); up; up = up->parentItem()) {
            if (window && up == window->contentItem())
                return QAccessible::queryAccessibleInterface(window);
            if (QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(up))
                return iface;
        }
        return nullptr;
    }
    QAccessibleInterface *child(int) const override { return nullptr; }
    int childCount() const override { return 0; }
    int indexOfChild(const QAccessibleInterface *) const override { return -1; }

    QRect rect() const override
    {
        const QQuickItem *it = item();
        if (!it->window() || !it->isVisible())
            return {};
        const QPoint topLeft = it->window()->mapToGlobal(it->mapToScene({0, 0}).toPoint());
        return {topLeft, it->size().toSize()};
    }

    QAccessible::Role role() const override
    {
        switch (m_kind) {
        case Kind::Button: {
            bool ok = false;
            const int role = item()->property("accessibleRole").toInt(&ok);
            return ok ? QAccessible::Role(role) : QAccessible::Button;
        }
        case Kind::ComboBox:
            return QAccessible::ComboBox;
        case Kind::ProgressBar:
        case Kind::BusyIndicator:
            // A busy progress bar: what readers announce for work of unknown length.
            return QAccessible::ProgressBar;
        }
        return QAccessible::Client;
    }

    QString text(QAccessible::Text type) const override
    {
        const QObject *attached = declared(item());
        switch (type) {
        case QAccessible::Name: {
            const QString name = attached ? attached->property("name").toString() : QString();
            return name.isEmpty() ? item()->property("text").toString() : name;
        }
        case QAccessible::Description:
            return attached ? attached->property("description").toString() : QString();
        case QAccessible::Value:
            if (m_kind == Kind::ComboBox)
                return item()->property("displayText").toString();
            if (m_kind == Kind::ProgressBar)
                return u"%1 %"_s.arg(qRound(fraction() * 100));
            return {};
        default:
            return {};
        }
    }

    QAccessible::State state() const override
    {
        const QQuickItem *it = item();
        QAccessible::State state;
        state.invisible = !it->window() || !it->window()->isVisible() || !it->isVisible() ||
                          qFuzzyIsNull(it->opacity());
        // Enabled is the item's own flag and every ancestor's: a greyed row greys
        // its buttons.
        state.disabled = !it->isEnabled();
        state.focusable = it->activeFocusOnTab() && it->isEnabled();
        state.focused = it->hasActiveFocus();
        switch (m_kind) {
        case Kind::Button: {
            const QAccessible::Role r = role();
            state.checkable = r == QAccessible::RadioButton || r == QAccessible::CheckBox;
            state.checked = state.checkable && it->property("checked").toBool();
            state.pressed = it->property("pressed").toBool();
            state.defaultButton = it->property("highlighted").toBool();
            break;
        }
        case Kind::ComboBox:
            state.hasPopup = true;
            state.expandable = true;
            state.expanded = popupVisible();
            break;
        case Kind::BusyIndicator:
            state.busy = it->property("running").toBool();
            break;
        case Kind::ProgressBar:
            break;
        }
        return state;
    }

    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::ActionInterface &&
            (m_kind == Kind::Button || m_kind == Kind::ComboBox))
            return static_cast<QAccessibleActionInterface *>(this);
        if (type == QAccessible::ValueInterface && m_kind == Kind::ProgressBar)
            return static_cast<QAccessibleValueInterface *>(this);
        // The choice a picker shows, as the text AT-SPI readers read of a combo box
        // that has no children (its value text does not cross the bridge).
        if (type == QAccessible::TextInterface && m_kind == Kind::ComboBox)
            return static_cast<QAccessibleTextInterface *>(this);
        return nullptr;
    }

    // A greyed control offers nothing to do.
    QStringList actionNames() const override
    {
        if (!item()->isEnabled())
            return {};
        QStringList names{m_kind == Kind::ComboBox ? showMenuAction() : pressAction()};
        if (item()->activeFocusOnTab())
            names << setFocusAction();
        return names;
    }
    void doAction(const QString &name) override
    {
        if (!actionNames().contains(name))
            return;
        if (name == setFocusAction())
            item()->forceActiveFocus(Qt::OtherFocusReason);
        else if (m_kind == Kind::ComboBox)
            QMetaObject::invokeMethod(item()->property("popup").value<QObject *>(), "open");
        else
            QMetaObject::invokeMethod(item(), "clicked");
    }
    QStringList keyBindingsForAction(const QString &) const override { return {}; }

    QVariant currentValue() const override { return item()->property("value"); }
    void setCurrentValue(const QVariant &) override {} // shows progress, takes none
    QVariant maximumValue() const override { return item()->property("to"); }
    QVariant minimumValue() const override { return item()->property("from"); }
    QVariant minimumStepSize() const override { return 0.0; }

    // The shown choice, read-only: no caret, no selection.
    QString text(int start, int end) const override
    {
        return text(QAccessible::Value).mid(start, end - start);
    }
    int characterCount() const override { return int(text(QAccessible::Value).size()); }
    void selection(int, int *start, int *end) const override { *start = *end = 0; }
    int selectionCount() const override { return 0; }
    void addSelection(int, int) override {}
    void removeSelection(int) override {}
    void setSelection(int, int, int) override {}
    int cursorPosition() const override { return 0; }
    void setCursorPosition(int) override {}
    QRect characterRect(int) const override { return {}; }
    int offsetAtPoint(const QPoint &) const override { return -1; }
    void scrollToSubstring(int, int) override {}
    QString attributes(int offset, int *start, int *end) const override
    {
        *start = *end = offset;
        return {};
    }

private:
    double fraction() const
    {
        const double from = minimumValue().toDouble(), to = maximumValue().toDouble();
        return to > from ? (currentValue().toDouble() - from) / (to - from) : 0.0;
    }
    bool popupVisible() const
    {
        const QObject *popup = item()->property("popup").value<QObject *>();
        return popup && popup->property("visible").toBool();
    }

    Kind m_kind;
};

QAccessibleInterface *controlInterface(const QString &className, QObject *object)
{
    // Asked for each class from the most derived up; Qt's own answer comes at
    // QQuickItem, after these.
    static const QHash<QString, Kind> kinds{{u"QQuickButton"_s, Kind::Button},
                                            {u"QQuickComboBox"_s, Kind::ComboBox},
                                            {u"QQuickProgressBar"_s, Kind::ProgressBar},
                                            {u"QQuickBusyIndicator"_s, Kind::BusyIndicator}};
    auto *item = qobject_cast<QQuickItem *>(object);
    const auto kind = kinds.constFind(className);
    return item && kind != kinds.constEnd() ? new ControlAccessible(item, *kind) : nullptr;
}
} // namespace

void installControlAccessibility()
{
    static const bool installed = [] {
        QAccessible::installFactory(controlInterface);
        return true;
    }();
    Q_UNUSED(installed);
}

#include "controlaccessible.moc"
