// SupportGuiModule.cpp - a test GUI module: its implementation records every call with its arguments
// and answers with values the placeholder never gives. Built a second time without its entry point.
#include "SupportGui.h"

#include <cstdio>
#include <string>
#include <vector>

#if defined(_WIN32)
#define MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

std::vector<std::string> g_log;
int g_entryCalls = 0;

std::string text(const void* p)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%p", p);
    return buffer;
}
std::string text(const char* s) { return s ? s : "(null)"; }
std::string text(const YString& s) { return s.c_str(); }
std::string text(int v) { return std::to_string(v); }
std::string text(bool v) { return v ? "true" : "false"; }

template <class... Args>
void record(const char* slot, const Args&... args)
{
    std::string line = slot;
    ((line += "|" + text(args)), ...);
    g_log.push_back(line);
}

class RecordingGui : public SupportGuiAbstract {
public:
    bool copyTextToClipboard(const char* t) override { record("0", t); return true; }
    bool pasteTextFromClipboard(YString* out) override { record("1", static_cast<const void*>(out)); *out = "pasted"; return true; }
    YString getApplicationStyle() override { record("2"); return YString("module-style"); }
    void applyKalvontaIcon(QWidget* w) override { record("3", static_cast<const void*>(w)); }
    void restoreWidgetDims(QWidget* w, const YString& k) override { record("4", static_cast<const void*>(w), k); }
    void saveWidgetDims(QWidget* w, const YString& k) override { record("5", static_cast<const void*>(w), k); }
    void autoSaveDialogDims(QWidget* w) override { record("6", static_cast<const void*>(w)); }
    AskUserResponse askUser(const char* m, const char* c, AskUserFlags f) override
    {
        record("7", m, c, static_cast<int>(f));
        return AskUserResponseNo;
    }
    void fatalMessage(const char* m) override { record("8", m); }
    bool askUserYesNo(const char* m, const char* c) override { record("9", m, c); return true; }
    YString openMessageBox(const YString& a, const YString& b, const YString& c, const YString& d, MessageBoxCheckBox x) override
    {
        record("10", a, b, c, d, static_cast<int>(x));
        return YString("box");
    }
    YString chooseDirectory(const YString& s) override { record("11", s); return YString("/chosen"); }
    void cvtToHyperlink(QLabel* l, QObject* r) override { record("12", static_cast<const void*>(l), static_cast<const void*>(r)); }
    void getSupportedImageReadFormats(YList<YString>* f) override { record("13", static_cast<const void*>(f)); f->append(YString("png")); }
    void getSupportedImageWriteFormats(YList<YString>* f) override { record("14", static_cast<const void*>(f)); f->append(YString("svg")); }
    bool createFont(const YString& n, const YString& s, std::function<void()> changed) override
    {
        record("15", n, s);
        if (changed)
            changed();
        return true;
    }
    bool editFont(const YString& n, const YString& c) override { record("16", n, c); return true; }
    YString getFontSpec(const YString& n) override { record("17", n); return YString("Sans,10"); }
    void getFontNames(YList<YString>* names, bool all) override { record("18", static_cast<const void*>(names), all); }
    bool recoverFont(QFont* f, const YString& n) override { record("19", static_cast<const void*>(f), n); return true; }
    void updateFonts() override { record("20"); }
    void getPixmap(const QString& n, QPixmap* p, int s) override
    {
        record("21", static_cast<const void*>(&n), static_cast<const void*>(p), s);
    }
    void scalePixmap(QPixmap* p, int s) override { record("22", static_cast<const void*>(p), s); }
    void scaleAllBitmaps(QObject* r, int s) override { record("23", static_cast<const void*>(r), s); }
    void showMaxCoresHint(QWidget* p, int c, int m) override { record("24", static_cast<const void*>(p), c, m); }
    void applyInfoIconToQLabel(QLabel& l) override { record("25", static_cast<const void*>(&l)); }
    void fontInstanceCreated(FontInstance* i, const YString& n, std::function<void(QFont*)> cb) override
    {
        record("26", static_cast<const void*>(i), n);
        if (cb)
            cb(nullptr);
    }
    void fontInstanceCreated(FontInstance* i, const YString& n, const QFont& f, std::function<void(QFont*)> cb) override
    {
        record("27", static_cast<const void*>(i), n, static_cast<const void*>(&f));
        if (cb)
            cb(nullptr);
    }
    void fontInstanceDestroyed(FontInstance* i) override { record("28", static_cast<const void*>(i)); }
    void fontInstanceUpdate(FontInstance* i) override { record("29", static_cast<const void*>(i)); }
    void setApplicationName(YString n) override { record("30", n); }
};

RecordingGui g_gui;

} // namespace

#ifndef SUPPORTGUI_WITHOUT_ENTRY
MODULE_EXPORT SupportGuiAbstract* sp_GetSupportGuiImpl()
{
    ++g_entryCalls;
    return &g_gui;
}
#endif

/// The calls recorded so far, one line each: slot number, then the arguments separated by "|".
MODULE_EXPORT const std::vector<std::string>* supportGuiLog() { return &g_log; }
MODULE_EXPORT int supportGuiEntryCalls() { return g_entryCalls; }
