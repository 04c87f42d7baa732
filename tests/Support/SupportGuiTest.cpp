// SupportGuiTest.cpp - the GUI facade with the test module "supportgui" on the library search path
// (every forwarder reaches its slot with its arguments), without any module (the placeholder's
// defaults), and with a module that has no entry point (the placeholder stays in use).
#include "SupportGui.h"
#include "TestHelpers.h"

#include <QLibrary>
#include <QString>

#include <cstdio>
#include <string>
#include <vector>

namespace {

[[maybe_unused]] std::string ptr(const void* p)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%p", p);
    return buffer;
}

// Stand-ins for GUI objects: the facade only passes their addresses on.
char g_widget, g_label, g_object, g_font, g_pixmap;
QWidget* widget() { return reinterpret_cast<QWidget*>(&g_widget); }
QLabel* label() { return reinterpret_cast<QLabel*>(&g_label); }
QObject* object() { return reinterpret_cast<QObject*>(&g_object); }
QFont* font() { return reinterpret_cast<QFont*>(&g_font); }
QPixmap* pixmap() { return reinterpret_cast<QPixmap*>(&g_pixmap); }

} // namespace

#if defined(SUPPORTGUI_MODE_PRESENT)

class GuiModule : public ::testing::Test {
protected:
    void SetUp() override
    {
        QLibrary module(QStringLiteral("supportgui"));
        log = reinterpret_cast<const std::vector<std::string>* (*)()>(module.resolve("supportGuiLog"));
        entryCalls = reinterpret_cast<int (*)()>(module.resolve("supportGuiEntryCalls"));
        ASSERT_NE(log, nullptr) << "the test module must be on the library search path (CTest sets it)";
    }
    std::string last() { return log()->empty() ? std::string() : log()->back(); }
    const std::vector<std::string>* (*log)() = nullptr;
    int (*entryCalls)() = nullptr;
};

TEST_F(GuiModule, EveryForwarderReachesItsSlotWithItsArguments)
{
    EXPECT_EQ(entryCalls(), 0);
    EXPECT_TRUE(sp_CopyTextToClipboard("clip text"));
    EXPECT_EQ(last(), "0|clip text");
    EXPECT_EQ(entryCalls(), 1);
    YString out;
    EXPECT_TRUE(sp_PasteTextFromClipboard(&out));
    EXPECT_EQ(last(), "1|" + ptr(&out));
    EXPECT_STREQ(out.c_str(), "pasted");
    EXPECT_STREQ(sp_GetApplicationStyle().c_str(), "module-style");
    EXPECT_EQ(last(), "2");
    sp_ApplyKalvontaIcon(widget());
    EXPECT_EQ(last(), "3|" + ptr(widget()));
    sp_RestoreWidgetDims(widget(), "dlg/main");
    EXPECT_EQ(last(), "4|" + ptr(widget()) + "|dlg/main");
    sp_SaveWidgetDims(widget(), "dlg/other");
    EXPECT_EQ(last(), "5|" + ptr(widget()) + "|dlg/other");
    sp_AutoSaveDialogDims(widget());
    EXPECT_EQ(last(), "6|" + ptr(widget()));
    EXPECT_EQ(sp_AskUser("Save?", "Editor", static_cast<AskUserFlags>(AskUserYes | AskUserNo)), AskUserResponseNo);
    EXPECT_EQ(last(), "7|Save?|Editor|12");
    sp_FatalMessage("it broke");
    EXPECT_EQ(last(), "8|it broke");
    EXPECT_TRUE(sp_AskUserYesNo("Sure?", "Caption"));
    EXPECT_EQ(last(), "9|Sure?|Caption");
    EXPECT_STREQ(sp_OpenMessageBox("t", "x", "i", "d", MessageBoxCheckBoxChecked).c_str(), "box");
    EXPECT_EQ(last(), "10|t|x|i|d|2");
    EXPECT_STREQ(sp_ChooseDirectory("/start").c_str(), "/chosen");
    EXPECT_EQ(last(), "11|/start");
    sp_CvtToHyperlink(label(), object());
    EXPECT_EQ(last(), "12|" + ptr(label()) + "|" + ptr(object()));
    YList<YString> formats;
    sp_GetSupportedImageReadFormats(&formats);
    EXPECT_EQ(last(), "13|" + ptr(&formats));
    sp_GetSupportedImageWriteFormats(&formats);
    EXPECT_EQ(last(), "14|" + ptr(&formats));
    ASSERT_EQ(formats.count(), 2);
    int changed = 0;
    EXPECT_TRUE(sp_CreateFont("editor", "Mono,9", [&] { ++changed; }));
    EXPECT_EQ(last(), "15|editor|Mono,9");
    EXPECT_EQ(changed, 1);
    EXPECT_TRUE(sp_EditFont("editor", "Choose"));
    EXPECT_EQ(last(), "16|editor|Choose");
    EXPECT_STREQ(sp_GetFontSpec("editor").c_str(), "Sans,10");
    EXPECT_EQ(last(), "17|editor");
    YList<YString> names;
    sp_GetFontNames(&names, true);
    EXPECT_EQ(last(), "18|" + ptr(&names) + "|true");
    EXPECT_TRUE(sp_RecoverFont(font(), "editor"));
    EXPECT_EQ(last(), "19|" + ptr(font()) + "|editor");
    sp_UpdateFonts();
    EXPECT_EQ(last(), "20");
    const QString name("icon");
    sp_GetPixmap(name, pixmap(), 32);
    EXPECT_EQ(last(), "21|" + ptr(&name) + "|" + ptr(pixmap()) + "|32");
    sp_ScalePixmap(pixmap(), 48);
    EXPECT_EQ(last(), "22|" + ptr(pixmap()) + "|48");
    sp_ScaleAllBitmaps(object(), 150);
    EXPECT_EQ(last(), "23|" + ptr(object()) + "|150");
    sp_ShowMaxCoresHint(widget(), 4, 16);
    EXPECT_EQ(last(), "24|" + ptr(widget()) + "|4|16");
    sp_ApplyInfoIconToQLabel(*label());
    EXPECT_EQ(last(), "25|" + ptr(label()));
    int callbacks = 0;
    std::string onePtr, twoPtr;
    {
        FontInstance one("plot", [&](QFont*) { ++callbacks; });
        onePtr = ptr(&one);
        EXPECT_EQ(last(), "26|" + ptr(&one) + "|plot");
        FontInstance two("axis", *font(), [&](QFont*) { ++callbacks; });
        twoPtr = ptr(&two);
        EXPECT_EQ(last(), "27|" + ptr(&two) + "|axis|" + ptr(font()));
        two.update();
        EXPECT_EQ(last(), "29|" + ptr(&two));
        EXPECT_EQ(callbacks, 2);
    }
    // Destroyed in reverse order.
    EXPECT_EQ((*log())[log()->size() - 2], "28|" + twoPtr);
    EXPECT_EQ(last(), "28|" + onePtr);
    // The entry point was called once for all 31 calls.
    EXPECT_EQ(entryCalls(), 1);
    EXPECT_EQ(log()->size(), 31u);
}

#elif defined(SUPPORTGUI_MODE_ABSENT) || defined(SUPPORTGUI_MODE_NOENTRY)

TEST(GuiPlaceholder, DefaultsWhenNoImplementationIsFound)
{
#if defined(SUPPORTGUI_MODE_NOENTRY)
    // The module is there, but without its entry point.
    QLibrary module(QStringLiteral("supportgui"));
    ASSERT_NE(module.resolve("supportGuiLog"), nullptr) << "the module must be on the library search path (CTest sets it)";
    EXPECT_EQ(module.resolve("sp_GetSupportGuiImpl"), nullptr);
#else
    EXPECT_EQ(QLibrary(QStringLiteral("supportgui")).resolve("supportGuiLog"), nullptr);
#endif
    EXPECT_FALSE(sp_CopyTextToClipboard("x"));
    YString out("kept");
    EXPECT_FALSE(sp_PasteTextFromClipboard(&out));
    EXPECT_STREQ(out.c_str(), "kept");
    EXPECT_TRUE(sp_GetApplicationStyle().isEmpty());
    sp_ApplyKalvontaIcon(widget());
    sp_RestoreWidgetDims(widget(), "k");
    sp_SaveWidgetDims(widget(), "k");
    sp_AutoSaveDialogDims(widget());
    EXPECT_EQ(sp_AskUser("m", "c", AskUserOk), AskUserResponseNone);
    sp_FatalMessage("m");
    EXPECT_FALSE(sp_AskUserYesNo("m", "c"));
    EXPECT_TRUE(sp_OpenMessageBox("a", "b", "c", "d", MessageBoxNoCheckBox).isEmpty());
    EXPECT_TRUE(sp_ChooseDirectory("/x").isEmpty());
    sp_CvtToHyperlink(label(), object());
    YList<YString> formats;
    formats.append(YString("kept"));
    sp_GetSupportedImageReadFormats(&formats);
    sp_GetSupportedImageWriteFormats(&formats);
    EXPECT_EQ(formats.count(), 1);
    int called = 0;
    EXPECT_FALSE(sp_CreateFont("f", "s", [&] { ++called; }));
    EXPECT_FALSE(sp_EditFont("f", "c"));
    EXPECT_TRUE(sp_GetFontSpec("f").isEmpty());
    YList<YString> names;
    sp_GetFontNames(&names, false);
    EXPECT_EQ(names.count(), 0);
    EXPECT_FALSE(sp_RecoverFont(font(), "f"));
    sp_UpdateFonts();
    sp_GetPixmap(QString("p"), pixmap(), 1);
    sp_ScalePixmap(pixmap(), 1);
    sp_ScaleAllBitmaps(object(), 1);
    sp_ShowMaxCoresHint(widget(), 1, 2);
    sp_ApplyInfoIconToQLabel(*label());
    {
        FontInstance one("f", [&](QFont*) { ++called; });
        FontInstance two("g", *font(), [&](QFont*) { ++called; });
        one.update();
    }
    EXPECT_EQ(called, 0); // the placeholder only releases the function objects
}

#endif
