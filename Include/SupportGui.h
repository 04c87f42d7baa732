// SupportGui.h - the GUI facade: every call goes to the optional GUI module "supportgui" when it is
// present, and otherwise to a placeholder that does nothing and returns neutral values, so callers
// never test for the GUI. Qt's GUI classes appear only as forward declarations and references: this
// library links Qt Core alone.
#pragma once

#include "SupportQtExport.h"
#include "YContainers.h"
#include "YString.h"

#include <functional>

class QFont;
class QLabel;
class QObject;
class QPixmap;
class QString;
class QWidget;
class FontInstance;

/// Buttons and icon of `sp_AskUser`; bits, interpreted by the GUI module.
enum AskUserFlags : int {
    AskUserOk = 1,
    AskUserCancel = 2,
    AskUserYes = 4,
    AskUserNo = 8,
    AskUserWarning = 16,
    AskUserError = 32
};

/// The button the user chose; 0 when nothing was shown.
enum AskUserResponse : int {
    AskUserResponseNone = 0,
    AskUserResponseOk = 1,
    AskUserResponseCancel = 2,
    AskUserResponseYes = 4,
    AskUserResponseNo = 8
};

/// The optional check box of `sp_OpenMessageBox` ("do not show again").
enum MessageBoxCheckBox : int {
    MessageBoxNoCheckBox = 0,
    MessageBoxCheckBoxUnchecked = 1,
    MessageBoxCheckBoxChecked = 2
};

/// What the GUI module implements, in slot order. Arguments passed by value are owned by the callee.
class SUPPORTQT_API SupportGuiAbstract {
public:
    virtual bool copyTextToClipboard(const char* text) = 0;                                    // 0
    virtual bool pasteTextFromClipboard(YString* out) = 0;                                     // 1
    virtual YString getApplicationStyle() = 0;                                                 // 2
    virtual void applyKalvontaIcon(QWidget* widget) = 0;                                       // 3
    virtual void restoreWidgetDims(QWidget* widget, const YString& key) = 0;                   // 4
    virtual void saveWidgetDims(QWidget* widget, const YString& key) = 0;                      // 5
    virtual void autoSaveDialogDims(QWidget* widget) = 0;                                      // 6
    virtual AskUserResponse askUser(const char* message, const char* caption, AskUserFlags flags) = 0; // 7
    virtual void fatalMessage(const char* message) = 0;                                        // 8
    virtual bool askUserYesNo(const char* message, const char* caption) = 0;                   // 9
    virtual YString openMessageBox(const YString& title, const YString& text, const YString& informative,
                                   const YString& detailed, MessageBoxCheckBox checkBox) = 0;  // 10
    virtual YString chooseDirectory(const YString& start) = 0;                                 // 11
    virtual void cvtToHyperlink(QLabel* label, QObject* receiver) = 0;                         // 12
    virtual void getSupportedImageReadFormats(YList<YString>* formats) = 0;                    // 13
    virtual void getSupportedImageWriteFormats(YList<YString>* formats) = 0;                   // 14
    virtual bool createFont(const YString& name, const YString& spec, std::function<void()> changed) = 0; // 15
    virtual bool editFont(const YString& name, const YString& caption) = 0;                    // 16
    virtual YString getFontSpec(const YString& name) = 0;                                      // 17
    virtual void getFontNames(YList<YString>* names, bool all) = 0;                            // 18
    virtual bool recoverFont(QFont* font, const YString& name) = 0;                            // 19
    virtual void updateFonts() = 0;                                                            // 20
    virtual void getPixmap(const QString& name, QPixmap* pixmap, int size) = 0;                // 21
    virtual void scalePixmap(QPixmap* pixmap, int size) = 0;                                   // 22
    virtual void scaleAllBitmaps(QObject* root, int size) = 0;                                 // 23
    virtual void showMaxCoresHint(QWidget* parent, int cores, int maxCores) = 0;               // 24
    virtual void applyInfoIconToQLabel(QLabel& label) = 0;                                     // 25
#if defined(_MSC_VER)
    // The Microsoft compilers place the overloads of one name together in reverse order of declaration:
    // declared the other way round, they take slots 26 and 27 as other compilers give them.
    virtual void fontInstanceCreated(FontInstance* instance, const YString& name, const QFont& font,
                                     std::function<void(QFont*)> callback) = 0;                // 27
    virtual void fontInstanceCreated(FontInstance* instance, const YString& name,
                                     std::function<void(QFont*)> callback) = 0;                // 26
#else
    virtual void fontInstanceCreated(FontInstance* instance, const YString& name,
                                     std::function<void(QFont*)> callback) = 0;                // 26
    virtual void fontInstanceCreated(FontInstance* instance, const YString& name, const QFont& font,
                                     std::function<void(QFont*)> callback) = 0;                // 27
#endif
    virtual void fontInstanceDestroyed(FontInstance* instance) = 0;                            // 28
    virtual void fontInstanceUpdate(FontInstance* instance) = 0;                               // 29
    /// Names the application for the GUI module's settings.
    virtual void setApplicationName(YString name) = 0;                                         // 30

protected:
    ~SupportGuiAbstract() = default;
};

/// The built-in stand-in used while no GUI module is present: does nothing, returns neutral values.
class SUPPORTQT_API SupportGuiPlaceHolder : public SupportGuiAbstract {
public:
    bool copyTextToClipboard(const char*) override { return false; }
    bool pasteTextFromClipboard(YString*) override { return false; }
    YString getApplicationStyle() override { return YString(); }
    void applyKalvontaIcon(QWidget*) override {}
    void restoreWidgetDims(QWidget*, const YString&) override {}
    void saveWidgetDims(QWidget*, const YString&) override {}
    void autoSaveDialogDims(QWidget*) override {}
    AskUserResponse askUser(const char*, const char*, AskUserFlags) override { return AskUserResponseNone; }
    void fatalMessage(const char*) override {}
    bool askUserYesNo(const char*, const char*) override { return false; }
    YString openMessageBox(const YString&, const YString&, const YString&, const YString&, MessageBoxCheckBox) override
    {
        return YString();
    }
    YString chooseDirectory(const YString&) override { return YString(); }
    void cvtToHyperlink(QLabel*, QObject*) override {}
    void getSupportedImageReadFormats(YList<YString>*) override {}
    void getSupportedImageWriteFormats(YList<YString>*) override {}
    bool createFont(const YString&, const YString&, std::function<void()>) override { return false; }
    bool editFont(const YString&, const YString&) override { return false; }
    YString getFontSpec(const YString&) override { return YString(); }
    void getFontNames(YList<YString>*, bool) override {}
    bool recoverFont(QFont*, const YString&) override { return false; }
    void updateFonts() override {}
    void getPixmap(const QString&, QPixmap*, int) override {}
    void scalePixmap(QPixmap*, int) override {}
    void scaleAllBitmaps(QObject*, int) override {}
    void showMaxCoresHint(QWidget*, int, int) override {}
    void applyInfoIconToQLabel(QLabel&) override {}
    void fontInstanceCreated(FontInstance*, const YString&, std::function<void(QFont*)>) override {}
    void fontInstanceCreated(FontInstance*, const YString&, const QFont&, std::function<void(QFont*)>) override {}
    void fontInstanceDestroyed(FontInstance*) override {}
    void fontInstanceUpdate(FontInstance*) override {}
    void setApplicationName(YString) override {}
};

/// Entry point that the GUI module exports as "sp_GetSupportGuiImpl".
typedef SupportGuiAbstract* (*GetSupportGuiImpl_t)();

/// A font handle: the GUI module keeps what it needs per handle, keyed by the handle's address.
class SUPPORTQT_API FontInstance {
public:
    FontInstance(const YString& name, std::function<void(QFont*)> callback);
    FontInstance(const YString& name, const QFont& font, std::function<void(QFont*)> callback);
    ~FontInstance();
    FontInstance(const FontInstance&) = delete;
    FontInstance& operator=(const FontInstance&) = delete;
    void update();
};

/// The GUI forwarders: each passes its arguments unchanged to the same-named slot of the GUI module's
/// implementation, loading the module on first need, or to the placeholder's neutral value without it;
/// widgets, labels, fonts and pixmaps passed in stay the caller's.
/// Copies text to the clipboard; false when it was not copied (always without the GUI module).
[[nodiscard]] SUPPORTQT_API bool sp_CopyTextToClipboard(const char* text);
/// Reads the clipboard's text into `*out`; false, `*out` untouched, when there is none (or no GUI module).
[[nodiscard]] SUPPORTQT_API bool sp_PasteTextFromClipboard(YString* out);
/// The name of the application's widget style; empty without the GUI module.
SUPPORTQT_API YString sp_GetApplicationStyle();
/// Gives the widget the suite's window icon.
SUPPORTQT_API void sp_ApplyKalvontaIcon(QWidget* widget);
/// Restores the widget's size and position saved under `key`.
SUPPORTQT_API void sp_RestoreWidgetDims(QWidget* widget, const YString& key);
/// Saves the widget's size and position under `key`.
SUPPORTQT_API void sp_SaveWidgetDims(QWidget* widget, const YString& key);
/// Has the GUI module save the dialog's size and position for it.
SUPPORTQT_API void sp_AutoSaveDialogDims(QWidget* widget);
/// Asks the user with the buttons and icon of `flags`; the button chosen, or `AskUserResponseNone`
/// when nothing was shown (always without the GUI module).
SUPPORTQT_API AskUserResponse sp_AskUser(const char* message, const char* caption, AskUserFlags flags);
/// Shows a fatal-error message; shows nothing without the GUI module.
SUPPORTQT_API void sp_FatalMessage(const char* message);
/// Asks a yes-or-no question; true for yes, false for no or when nothing was shown.
SUPPORTQT_API bool sp_AskUserYesNo(const char* message, const char* caption);
/// Shows a message box with informative and detailed text and the optional check box; the GUI module's
/// answer as text, empty when nothing was shown (always without the GUI module).
SUPPORTQT_API YString sp_OpenMessageBox(const YString& title, const YString& text, const YString& informative,
                                        const YString& detailed, MessageBoxCheckBox checkBox);
/// Lets the user choose a folder, starting at `start`; the folder chosen, or empty.
SUPPORTQT_API YString sp_ChooseDirectory(const YString& start);
/// Makes the label show its text as a link whose activation `receiver` handles.
SUPPORTQT_API void sp_CvtToHyperlink(QLabel* label, QObject* receiver);
/// Appends the image formats that can be read to `*formats`; untouched without the GUI module.
SUPPORTQT_API void sp_GetSupportedImageReadFormats(YList<YString>* formats);
/// Appends the image formats that can be written to `*formats`; untouched without the GUI module.
SUPPORTQT_API void sp_GetSupportedImageWriteFormats(YList<YString>* formats);
/// Creates the named font from `spec`, with `changed` called when it changes later (the module keeps
/// the function); false when it was not created (always without the GUI module).
[[nodiscard]] SUPPORTQT_API bool sp_CreateFont(const YString& name, const YString& spec, std::function<void()> changed);
/// Offers the named font for editing in a dialog with that caption; false without the GUI module.
SUPPORTQT_API bool sp_EditFont(const YString& name, const YString& caption);
/// The description of the named font (family, size, style) as text; empty when it is unknown or without the GUI module.
SUPPORTQT_API YString sp_GetFontSpec(const YString& name);
/// Appends the names of the fonts the GUI module knows (`all` as the module reads it) to `*names`.
SUPPORTQT_API void sp_GetFontNames(YList<YString>* names, bool all);
/// Sets `*font` to the named font; false, `*font` untouched, when it is unknown or without the module.
[[nodiscard]] SUPPORTQT_API bool sp_RecoverFont(QFont* font, const YString& name);
/// Has the GUI module apply every font's current settings again.
SUPPORTQT_API void sp_UpdateFonts();
/// Loads the named image into `*pixmap` at `size` pixels; untouched without the GUI module.
SUPPORTQT_API void sp_GetPixmap(const QString& name, QPixmap* pixmap, int size);
/// Scales `*pixmap` to `size` pixels.
SUPPORTQT_API void sp_ScalePixmap(QPixmap* pixmap, int size);
/// Scales the images of every widget below `root` to `size` pixels.
SUPPORTQT_API void sp_ScaleAllBitmaps(QObject* root, int size);
/// Shows, over `parent`, the hint that `cores` cores were asked for where `maxCores` is the limit.
SUPPORTQT_API void sp_ShowMaxCoresHint(QWidget* parent, int cores, int maxCores);
/// Shows the information icon in the label.
SUPPORTQT_API void sp_ApplyInfoIconToQLabel(QLabel& label);
