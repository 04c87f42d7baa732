// DialogBindingTest.cpp - binding real dialogs (offscreen) to the records of a user-function call.
#include "DialogBinding.h"
#include "TestHelpers.h"

#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QVariant>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

char** allocateStrings(int n) { return static_cast<char**>(std::calloc(static_cast<size_t>(n), sizeof(char*))); }
double* allocateReals(int n)
{
    double* values = static_cast<double*>(std::malloc(static_cast<size_t>(n) * sizeof(double)));
    for (int i = 0; i < n; ++i)
        values[i] = -1.0; // "as allocated"
    return values;
}
char* copyString(const char* text) { return strdup(text); }

UserFunctionInterface makeCall()
{
    UserFunctionInterface call;
    call.allocateStrings = &allocateStrings;
    call.allocateReals = &allocateReals;
    call.copyString = &copyString;
    return call;
}

void freeResult(UserReturnData* result)
{
    if (result->type == UserDataString)
        for (int i = 0; i < result->count; ++i)
            std::free(static_cast<char**>(result->values)[i]);
    std::free(result->values);
}

// A widget with one value of its own.
class ValueWidget : public QLineEdit, public KV_FunctionDef {
public:
    explicit ValueWidget(QWidget* parent) : QLineEdit(parent) {}
    int getNumElements() const override { return 1; }
    bool isMultiElement() const override { return false; }
    bool initialise(UserFunctionInterface*) override { return false; }
    void writeResult(UserReturnData*, UserFunctionInterface*) override {}
};

// A widget that produces several elements and initialises itself.
class MultiWidget : public QWidget, public KV_FunctionDef {
public:
    explicit MultiWidget(QWidget* parent, int elements) : QWidget(parent), m_elements(elements) {}
    int getNumElements() const override { return m_elements; }
    bool isMultiElement() const override { return true; }
    bool initialise(UserFunctionInterface* call) override
    {
        initialised = call->numArguments;
        return true;
    }
    void writeResult(UserReturnData* result, UserFunctionInterface* call) override
    {
        for (int i = 0; i < result->count; ++i) {
            if (result->type == UserDataReal)
                static_cast<double*>(result->values)[i] = 100.0 + i;
            else
                static_cast<char**>(result->values)[i] = call->copyString(("m" + std::to_string(i)).c_str());
        }
    }
    int initialised = -1;

private:
    int m_elements;
};

// A widget whose own code deletes another widget of the dialog: when it is initialised, or when it writes
// its elements.
class DeletingWidget : public QWidget, public KV_FunctionDef {
public:
    DeletingWidget(QWidget* parent, bool onInitialise) : QWidget(parent), m_onInitialise(onInitialise) {}
    int getNumElements() const override { return 2; }
    bool isMultiElement() const override { return true; }
    bool initialise(UserFunctionInterface*) override
    {
        if (m_onInitialise && victim == this) {
            delete this; // and says it did not initialise itself
            return false;
        }
        if (m_onInitialise)
            delete victim;
        return true;
    }
    void writeResult(UserReturnData* result, UserFunctionInterface*) override
    {
        if (!m_onInitialise)
            delete victim;
        for (int i = 0; i < result->count && result->type == UserDataReal; ++i)
            static_cast<double*>(result->values)[i] = 50.0 + i;
    }
    QObject* victim = nullptr;

private:
    bool m_onInitialise;
};

template <class W>
W* tagged(W* widget, int out, int arg = -1, int element = -1)
{
    widget->setProperty("isKvDialogWidget", true);
    if (out != -100)
        widget->setProperty("outElementIndex", out);
    if (arg != -1)
        widget->setProperty("argIndex", arg);
    if (element != -1)
        widget->setProperty("inElementIndex", element);
    return widget;
}

} // namespace

TEST(DialogBinding, NoTaggedWidgets)
{
    QDialog dialog;
    new QLineEdit(&dialog);
    new ValueWidget(&dialog); // a KV_FunctionDef without "outElementIndex" produces nothing
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 0);
    UserFunctionInterface call = makeCall();
    UserReturnData result;
    result.count = 77;
    di_ReadDialog(&call, &result, &dialog, UserDataString, true);
    EXPECT_EQ(result.count, 77);
    EXPECT_EQ(result.values, nullptr);
}

TEST(DialogBinding, OutputIndicesZeroAndThreeGiveFourElements)
{
    QDialog dialog;
    auto* a = tagged(new ValueWidget(&dialog), 0);
    auto* b = tagged(new ValueWidget(&dialog), 3);
    a->setProperty("stringValue", QString::fromUtf8("first \xC3\xA9"));
    b->setProperty("stringValue", "fourth");
    a->setProperty("realValue", 1.5);
    b->setProperty("realValue", -2.25);
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 4);
    UserFunctionInterface call = makeCall();
    UserReturnData strings;
    di_ReadDialog(&call, &strings, &dialog, UserDataString, true);
    ASSERT_EQ(strings.count, 4);
    EXPECT_EQ(strings.type, UserDataString);
    char** s = static_cast<char**>(strings.values);
    EXPECT_STREQ(s[0], "first \xC3\xA9");
    EXPECT_EQ(s[1], nullptr);
    EXPECT_EQ(s[2], nullptr);
    EXPECT_STREQ(s[3], "fourth");
    freeResult(&strings);
    UserReturnData reals;
    di_ReadDialog(&call, &reals, &dialog, UserDataReal, true);
    ASSERT_EQ(reals.count, 4);
    double* r = static_cast<double*>(reals.values);
    EXPECT_EQ(r[0], 1.5);
    EXPECT_EQ(r[1], -1.0); // as allocated
    EXPECT_EQ(r[3], -2.25);
    freeResult(&reals);
    UserReturnData none;
    di_ReadDialog(&call, &none, &dialog, UserDataReal, false); // read false: nothing
    EXPECT_EQ(none.values, nullptr);
    di_ReadDialog(&call, &none, &dialog, UserDataInteger, true); // other types: nothing allocated
    EXPECT_EQ(none.values, nullptr);
}

TEST(DialogBinding, MultiElementWidgetFillsItsRange)
{
    QDialog dialog;
    auto* multi = tagged(new MultiWidget(&dialog, 3), 1);
    auto* single = tagged(new ValueWidget(&dialog), 0);
    single->setProperty("realValue", 7.0);
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 4);
    UserFunctionInterface call = makeCall();
    call.numArguments = 2;
    di_InitialiseDialog(&dialog, &call);
    EXPECT_EQ(multi->initialised, 2);
    UserReturnData reals;
    di_ReadDialog(&call, &reals, &dialog, UserDataReal, true);
    ASSERT_EQ(reals.count, 4);
    double* r = static_cast<double*>(reals.values);
    EXPECT_EQ(r[0], 7.0);
    EXPECT_EQ(r[1], 100.0);
    EXPECT_EQ(r[2], 101.0);
    EXPECT_EQ(r[3], 102.0);
    freeResult(&reals);
    UserReturnData strings;
    di_ReadDialog(&call, &strings, &dialog, UserDataString, true);
    char** s = static_cast<char**>(strings.values);
    EXPECT_STREQ(s[1], "m0");
    EXPECT_STREQ(s[3], "m2");
    freeResult(&strings);
}

// A widget whose range an int count cannot hold (its last element past 2147483647), or whose element
// count is negative, produces nothing: the result holds the other widgets' elements and no write goes past
// its end.
TEST(DialogBinding, ARangeBeyondTheCountOfAResultProducesNothing)
{
    QDialog dialog;
    auto* single = tagged(new ValueWidget(&dialog), 0);
    single->setProperty("realValue", 7.0);
    auto* far = tagged(new MultiWidget(&dialog, 2), INT_MAX - 1);
    auto* negative = tagged(new MultiWidget(&dialog, -5), 3);
    auto* last = tagged(new MultiWidget(&dialog, 1), INT_MAX - 1);
    EXPECT_EQ(di_GetNumOutputElements(&dialog), INT_MAX);
    delete last;
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 1);
    UserFunctionInterface call = makeCall();
    UserReturnData reals;
    di_ReadDialog(&call, &reals, &dialog, UserDataReal, true);
    ASSERT_EQ(reals.count, 1);
    EXPECT_EQ(static_cast<double*>(reals.values)[0], 7.0);
    freeResult(&reals);
    (void)far;
    (void)negative;
}

// A widget deleted by another's code while the dialog is gone through is passed over; the widgets
// after it are still handled.
TEST(DialogBinding, AWidgetDeletedOnTheWayIsPassedOver)
{
    QDialog dialog;
    auto* killer = tagged(new DeletingWidget(&dialog, true), 0);
    auto* doomed = tagged(new QLineEdit(&dialog), 2, 0, 0);
    auto* after = tagged(new QLineEdit(&dialog), 3, 0, 1);
    killer->victim = doomed;
    double reals[] = {1.5, 2.5};
    UserFunctionInterface call = makeCall();
    call.numArguments = 1;
    call.arguments[0] = UserArgument{reals, 2, UserDataReal};
    di_InitialiseDialog(&dialog, &call);
    EXPECT_EQ(after->property("realValue").toDouble(), 2.5);
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 4);
    // A widget that deletes itself in its own initialisation is not read afterwards.
    killer->victim = nullptr;
    auto* suicidal = tagged(new DeletingWidget(&dialog, true), 5, 0, 0);
    suicidal->victim = suicidal;
    di_InitialiseDialog(&dialog, &call);
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 4);

    QDialog second;
    auto* writer = tagged(new DeletingWidget(&second, false), 0);
    auto* gone = tagged(new ValueWidget(&second), 2);
    gone->setProperty("realValue", 9.0);
    auto* kept = tagged(new ValueWidget(&second), 3);
    kept->setProperty("realValue", 7.0);
    writer->victim = gone;
    UserReturnData result;
    di_ReadDialog(&call, &result, &second, UserDataReal, true);
    ASSERT_EQ(result.count, 4);
    const double* r = static_cast<const double*>(result.values);
    EXPECT_EQ(r[0], 50.0);
    EXPECT_EQ(r[1], 51.0);
    EXPECT_EQ(r[2], -1.0); // as allocated: its widget is gone
    EXPECT_EQ(r[3], 7.0);
    freeResult(&result);
}

TEST(DialogBinding, InitialiseFromArguments)
{
    QDialog dialog;
    auto* real = tagged(new QLineEdit(&dialog), 0, 0, 1);
    auto* text = tagged(new QLabel(&dialog), 1, 1, 0);
    auto* beyondArg = tagged(new QLineEdit(&dialog), 2, 5, 0);
    auto* beyondElement = tagged(new QLineEdit(&dialog), 3, 0, 9);
    auto* negative = tagged(new QLineEdit(&dialog), 4, -3, 0);
    auto* notNumber = tagged(new QLineEdit(&dialog), 5, 0, 0);
    notNumber->setProperty("argIndex", "abc");
    auto* untagged = new QLineEdit(&dialog);
    untagged->setProperty("argIndex", 0);
    untagged->setProperty("inElementIndex", 0);
    double reals[] = {1.25, 2.5};
    const char* strings[] = {"hello \xE2\x82\xAC"};
    UserFunctionInterface call = makeCall();
    call.numArguments = 2;
    call.arguments[0] = UserArgument{reals, 2, UserDataReal};
    call.arguments[1] = UserArgument{const_cast<char**>(strings), 1, UserDataString};
    di_InitialiseDialog(&dialog, &call);
    EXPECT_EQ(real->property("realValue").toDouble(), 2.5);
    EXPECT_EQ(text->property("stringValue").toString(), QString::fromUtf8("hello \xE2\x82\xAC"));
    for (QObject* unchanged : {static_cast<QObject*>(beyondArg), static_cast<QObject*>(beyondElement),
                               static_cast<QObject*>(negative), static_cast<QObject*>(notNumber),
                               static_cast<QObject*>(untagged)}) {
        EXPECT_FALSE(unchanged->property("realValue").isValid());
        EXPECT_FALSE(unchanged->property("stringValue").isValid());
    }
    // Plain tagged widgets count as outputs; reading takes only KV_FunctionDef widgets (kept as is).
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 6);
    UserReturnData result;
    di_ReadDialog(&call, &result, &dialog, UserDataReal, true);
    EXPECT_EQ(result.values, nullptr);
}

TEST(DialogBinding, ReadingTakesUntaggedFunctionWidgetsCountingDoesNot)
{
    QDialog dialog;
    auto* untaggedDef = new ValueWidget(&dialog);
    untaggedDef->setProperty("outElementIndex", 2);
    untaggedDef->setProperty("realValue", 9.0);
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 0);
    UserFunctionInterface call = makeCall();
    UserReturnData result;
    di_ReadDialog(&call, &result, &dialog, UserDataReal, true);
    ASSERT_EQ(result.count, 3);
    EXPECT_EQ(static_cast<double*>(result.values)[2], 9.0);
    freeResult(&result);
    auto* badIndex = tagged(new ValueWidget(&dialog), -100);
    badIndex->setProperty("outElementIndex", "not a number");
    EXPECT_EQ(di_GetNumOutputElements(&dialog), 0);
    di_GetNumOutputElements(nullptr);
    di_InitialiseDialog(nullptr, &call);
    di_ReadDialog(&call, &result, nullptr, UserDataReal, true);
}
