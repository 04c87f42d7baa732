// SupportGui.cpp - forwarders to the GUI module's implementation, or to the placeholder without it.
#include "SupportGui.h"
#include "PluginsPlatform_p.h"

#include <QLibrary>

#include <utility>

namespace {

SupportGuiPlaceHolder s_placeHolder;
SupportGuiAbstract* s_implementation = nullptr;

// The GUI module's implementation, looked for again on every call while the module is missing (so
// that a module made available later is found); the placeholder meanwhile.
SupportGuiAbstract* gui()
{
    if (!s_implementation) {
        QLibrary module(QStringLiteral("supportgui"));
        // Loaded as plug-ins are, never from the current folder; destroying the library object leaves the
        // module loaded.
        if (pluginsplatform::load(module))
            if (auto entry = reinterpret_cast<GetSupportGuiImpl_t>(module.resolve("sp_GetSupportGuiImpl")))
                s_implementation = entry();
    }
    return s_implementation ? s_implementation : &s_placeHolder;
}

} // namespace

FontInstance::FontInstance(const YString& name, std::function<void(QFont*)> callback)
{
    gui()->fontInstanceCreated(this, name, std::move(callback));
}

FontInstance::FontInstance(const YString& name, const QFont& font, std::function<void(QFont*)> callback)
{
    gui()->fontInstanceCreated(this, name, font, std::move(callback));
}

FontInstance::~FontInstance() { gui()->fontInstanceDestroyed(this); }

void FontInstance::update() { gui()->fontInstanceUpdate(this); }

bool sp_CopyTextToClipboard(const char* text) { return gui()->copyTextToClipboard(text); }
bool sp_PasteTextFromClipboard(YString* out) { return gui()->pasteTextFromClipboard(out); }
YString sp_GetApplicationStyle() { return gui()->getApplicationStyle(); }
void sp_ApplyKalvontaIcon(QWidget* widget) { gui()->applyKalvontaIcon(widget); }
void sp_RestoreWidgetDims(QWidget* widget, const YString& key) { gui()->restoreWidgetDims(widget, key); }
void sp_SaveWidgetDims(QWidget* widget, const YString& key) { gui()->saveWidgetDims(widget, key); }
void sp_AutoSaveDialogDims(QWidget* widget) { gui()->autoSaveDialogDims(widget); }
AskUserResponse sp_AskUser(const char* message, const char* caption, AskUserFlags flags)
{
    return gui()->askUser(message, caption, flags);
}
void sp_FatalMessage(const char* message) { gui()->fatalMessage(message); }
bool sp_AskUserYesNo(const char* message, const char* caption) { return gui()->askUserYesNo(message, caption); }
YString sp_OpenMessageBox(const YString& title, const YString& text, const YString& informative, const YString& detailed,
                          MessageBoxCheckBox checkBox)
{
    return gui()->openMessageBox(title, text, informative, detailed, checkBox);
}
YString sp_ChooseDirectory(const YString& start) { return gui()->chooseDirectory(start); }
void sp_CvtToHyperlink(QLabel* label, QObject* receiver) { gui()->cvtToHyperlink(label, receiver); }
void sp_GetSupportedImageReadFormats(YList<YString>* formats) { gui()->getSupportedImageReadFormats(formats); }
void sp_GetSupportedImageWriteFormats(YList<YString>* formats) { gui()->getSupportedImageWriteFormats(formats); }
bool sp_CreateFont(const YString& name, const YString& spec, std::function<void()> changed)
{
    return gui()->createFont(name, spec, std::move(changed));
}
bool sp_EditFont(const YString& name, const YString& caption) { return gui()->editFont(name, caption); }
YString sp_GetFontSpec(const YString& name) { return gui()->getFontSpec(name); }
void sp_GetFontNames(YList<YString>* names, bool all) { gui()->getFontNames(names, all); }
bool sp_RecoverFont(QFont* font, const YString& name) { return gui()->recoverFont(font, name); }
void sp_UpdateFonts() { gui()->updateFonts(); }
void sp_GetPixmap(const QString& name, QPixmap* pixmap, int size) { gui()->getPixmap(name, pixmap, size); }
void sp_ScalePixmap(QPixmap* pixmap, int size) { gui()->scalePixmap(pixmap, size); }
void sp_ScaleAllBitmaps(QObject* root, int size) { gui()->scaleAllBitmaps(root, size); }
void sp_ShowMaxCoresHint(QWidget* parent, int cores, int maxCores) { gui()->showMaxCoresHint(parent, cores, maxCores); }
void sp_ApplyInfoIconToQLabel(QLabel& label) { gui()->applyInfoIconToQLabel(label); }
