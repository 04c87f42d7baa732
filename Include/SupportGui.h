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
    virtual void fontInstanceCreated(FontInstance* instance, const YString& name,
                                     std::function<void(QFont*)> callback) = 0;                // 26
    virtual void fontInstanceCreated(FontInstance* instance, const YString& name, const QFont& font,
                                     std::function<void(QFont*)> callback) = 0;                // 27
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

SUPPORTQT_API bool sp_CopyTextToClipboard(const char* text);
SUPPORTQT_API bool sp_PasteTextFromClipboard(YString* out);
SUPPORTQT_API YString sp_GetApplicationStyle();
SUPPORTQT_API void sp_ApplyKalvontaIcon(QWidget* widget);
SUPPORTQT_API void sp_RestoreWidgetDims(QWidget* widget, const YString& key);
SUPPORTQT_API void sp_SaveWidgetDims(QWidget* widget, const YString& key);
SUPPORTQT_API void sp_AutoSaveDialogDims(QWidget* widget);
SUPPORTQT_API AskUserResponse sp_AskUser(const char* message, const char* caption, AskUserFlags flags);
SUPPORTQT_API void sp_FatalMessage(const char* message);
SUPPORTQT_API bool sp_AskUserYesNo(const char* message, const char* caption);
SUPPORTQT_API YString sp_OpenMessageBox(const YString& title, const YString& text, const YString& informative,
                                        const YString& detailed, MessageBoxCheckBox checkBox);
SUPPORTQT_API YString sp_ChooseDirectory(const YString& start);
SUPPORTQT_API void sp_CvtToHyperlink(QLabel* label, QObject* receiver);
SUPPORTQT_API void sp_GetSupportedImageReadFormats(YList<YString>* formats);
SUPPORTQT_API void sp_GetSupportedImageWriteFormats(YList<YString>* formats);
SUPPORTQT_API bool sp_CreateFont(const YString& name, const YString& spec, std::function<void()> changed);
SUPPORTQT_API bool sp_EditFont(const YString& name, const YString& caption);
SUPPORTQT_API YString sp_GetFontSpec(const YString& name);
SUPPORTQT_API void sp_GetFontNames(YList<YString>* names, bool all);
SUPPORTQT_API bool sp_RecoverFont(QFont* font, const YString& name);
SUPPORTQT_API void sp_UpdateFonts();
SUPPORTQT_API void sp_GetPixmap(const QString& name, QPixmap* pixmap, int size);
SUPPORTQT_API void sp_ScalePixmap(QPixmap* pixmap, int size);
SUPPORTQT_API void sp_ScaleAllBitmaps(QObject* root, int size);
SUPPORTQT_API void sp_ShowMaxCoresHint(QWidget* parent, int cores, int maxCores);
SUPPORTQT_API void sp_ApplyInfoIconToQLabel(QLabel& label);
