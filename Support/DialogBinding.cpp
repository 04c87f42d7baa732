// DialogBinding.cpp - counting, filling and reading a user-defined function's dialog.
#include "DialogBinding.h"
#include "PatternMatch.h"

#include <QObject>
#include <QPointer>
#include <QVariant>

#include <algorithm>
#include <climits>
#include <vector>

namespace {

bool isTagged(const QObject* object) { return object->property("isKvDialogWidget").isValid(); }

// The integer value of a property; `fallback` when it is missing or no number.
int intProperty(const QObject* object, const char* name, int fallback)
{
    bool ok = false;
    const int value = object->property(name).toInt(&ok);
    return ok ? value : fallback;
}

// The first result element of a widget and how many it produces: one, or a multi-element widget's
// count. Without a numeric "outElementIndex" the widget produces none and counts as index -1.
void outputRange(QObject* object, int* index, int* width)
{
    bool ok = false;
    *index = object->property("outElementIndex").toInt(&ok);
    if (!ok) {
        *index = -1;
        *width = 0;
        return;
    }
    const KV_FunctionDef* def = dynamic_cast<KV_FunctionDef*>(object);
    *width = def && def->isMultiElement() ? def->getNumElements() : 1;
    // A range that the int count of a result cannot hold, or a negative element count, is no range:
    // such a widget produces nothing, rather than writing past the end of what is allocated.
    if (*width < 0 || static_cast<long long>(*index) + *width > INT_MAX) {
        *index = -1;
        *width = 0;
    }
}

// The dialog's descendants, each guarded: a widget's own code, called on the way through them, may
// delete widgets further on, which are then passed over.
std::vector<QPointer<QObject>> descendants(QDialog* dialog)
{
    const QList<QObject*> all = qtsp_QueryList(reinterpret_cast<QObject*>(dialog), nullptr, nullptr, false, true);
    return std::vector<QPointer<QObject>>(all.begin(), all.end());
}

} // namespace

KV_FunctionDef::~KV_FunctionDef() = default;
const char* KV_FunctionDef::getFunctionName() const { return ""; }
const char* KV_FunctionDef::getFunctionDescription() const { return ""; }

int di_GetNumOutputElements(QDialog* dialog)
{
    if (!dialog)
        return 0;
    int total = 0;
    for (QObject* object : descendants(dialog)) {
        if (!object || !isTagged(object))
            continue;
        int index = 0, width = 0;
        outputRange(object, &index, &width);
        total = std::max(total, index + width);
    }
    return total;
}

void di_InitialiseDialog(QDialog* dialog, UserFunctionInterface* call)
{
    if (!dialog || !call)
        return;
    for (const QPointer<QObject>& guarded : descendants(dialog)) {
        QObject* const object = guarded.data();
        if (!object || !isTagged(object))
            continue;
        if (KV_FunctionDef* def = dynamic_cast<KV_FunctionDef*>(object))
            if (def->initialise(call) || !guarded) // a widget that deleted itself is gone
                continue;
        const int arg = intProperty(object, "argIndex", -1);
        if (arg < 0 || arg >= call->numArguments || arg >= UserFunctionInterface::kMaxArguments)
            continue;
        const UserArgument& argument = call->arguments[arg];
        const int element = intProperty(object, "inElementIndex", -1);
        if (element < 0 || element >= argument.count || !argument.values)
            continue;
        if (argument.type == UserDataReal)
            object->setProperty("realValue", static_cast<const double*>(argument.values)[element]);
        else if (argument.type == UserDataString)
            object->setProperty("stringValue", QString::fromUtf8(static_cast<char* const*>(argument.values)[element]));
    }
}

void di_ReadDialog(UserFunctionInterface* call, UserReturnData* result, QDialog* dialog, UserDataType type, bool read)
{
    if (!read || !call || !result || !dialog)
        return;
    // Only KV_FunctionDef widgets count here, tagged or not (the counting function goes by the tag).
    // A widget deleted by the code of one written before it is passed over (`def` is null then).
    struct Widget {
        QPointer<QObject> object;
        int index;
        int width;
        KV_FunctionDef* def() const { return dynamic_cast<KV_FunctionDef*>(object.data()); }
    };
    std::vector<Widget> widgets;
    int total = 0;
    for (const QPointer<QObject>& object : descendants(dialog)) {
        if (!dynamic_cast<KV_FunctionDef*>(object.data()))
            continue;
        int index = 0, width = 0;
        outputRange(object, &index, &width);
        total = std::max(total, index + width);
        if (index >= 0)
            widgets.push_back({object, index, width});
    }
    if (total <= 0)
        return;
    if (type == UserDataString) {
        if (!call->allocateStrings)
            return;
        char** strings = call->allocateStrings(total);
        if (!strings)
            return;
        std::fill(strings, strings + total, nullptr);
        *result = UserReturnData{strings, UserDataString, total};
        for (const Widget& w : widgets) {
            KV_FunctionDef* const def = w.def();
            if (!def)
                continue;
            if (def->isMultiElement()) {
                UserReturnData part{strings + w.index, UserDataString, w.width};
                def->writeResult(&part, call);
            } else if (call->copyString && w.index < total) {
                strings[w.index] = call->copyString(w.object->property("stringValue").toString().toUtf8().constData());
            }
        }
    } else if (type == UserDataReal) {
        if (!call->allocateReals)
            return;
        double* values = call->allocateReals(total);
        if (!values)
            return;
        *result = UserReturnData{values, UserDataReal, total};
        for (const Widget& w : widgets) {
            KV_FunctionDef* const def = w.def();
            if (!def)
                continue;
            if (def->isMultiElement()) {
                UserReturnData part{values + w.index, UserDataReal, w.width};
                def->writeResult(&part, call);
            } else if (w.index < total) {
                values[w.index] = w.object->property("realValue").toDouble();
            }
        }
    }
}
