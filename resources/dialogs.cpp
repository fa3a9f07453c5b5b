// The dialog descriptions, expanded from dialogs.inc (the same file the resource script reads).
#include "resources/resources.h"

namespace {

using platform::ControlDesc;
using platform::ControlKind;

#define CW_GROUP platform::kCtlGroup
#define CW_NUMBER platform::kCtlNumber
#define CW_MULTI platform::kCtlMulti
#define CW_READONLY platform::kCtlReadOnly
#define CW_VSCROLL platform::kCtlVScroll
#define CW_DISABLED platform::kCtlDisabled
#define CW_TABSTOPS platform::kCtlTabStops
#define CW_SUNKEN platform::kCtlSunken
#define CW_PAGE true
#define CW_WINDOW false
#define CW_STR2(x) #x
#define CW_STR(x) CW_STR2(x)

// First pass: one control array per dialog.
#define CW_DIALOG(id, title, w, h, face, points, style) constexpr ControlDesc controls_##id[] = {
#define CW_CONTROL(kind, id, text, x, y, w, h, flags) {id, ControlKind::kind, text, x, y, w, h, std::uint32_t(flags)},
#define CW_ICON(id, icon, x, y, w, h) {id, ControlKind::Icon, CW_STR(icon), x, y, w, h, 0},
#define CW_END };
#include "resources/dialogs.inc"
#undef CW_DIALOG
#undef CW_CONTROL
#undef CW_ICON
#undef CW_END

// Second pass: the dialogs.
#define CW_DIALOG(id, title, w, h, face, points, style) {id, title, w, h, face, points, style, controls_##id},
#define CW_CONTROL(kind, id, text, x, y, w, h, flags)
#define CW_ICON(id, icon, x, y, w, h)
#define CW_END
constexpr platform::DialogDesc dialogs[] = {
#include "resources/dialogs.inc"
};

}  // namespace

namespace resources {

std::span<const platform::DialogDesc> Dialogs() { return dialogs; }

void RegisterDialogs() { platform::SetDialogDescriptions(dialogs); }

}  // namespace resources
