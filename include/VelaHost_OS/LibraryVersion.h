/// @file
/// Version texts of this and other libraries.

#pragma once

#include <VelaHost_Utility/Export.h>

#include <string>

// This library's own version strings, in the form "KXcid N.N.N.N NAME".
extern "C" {
/// Names the library.
VELAHOST_EXPORT extern const char* const LIBVELAHOST_FILE_VERSION_STRING;
/// Names the product family that ships it.
VELAHOST_EXPORT extern const char* const LIBVELAHOST_PRODUCT_VERSION_STRING;
}

namespace VelaHost_OS {

/// Finds the version text that the library `name` publishes: the text that the pointer variable
/// `name` + "_LibraryVersion" (case kept) leads to. Returns true and sets `version`; false, and
/// `version` is untouched, when there is none or it is null.
///
/// First it looks among all that the process has loaded. Then it loads, for a moment, the file
/// `name` + ".so" with the ASCII letters of `name` in lower case, from the loader's usual places; a
/// name of 40 characters or more is not looked for in files. Loading runs the library's
/// initialisers, and releasing it its finalisers. Where it stays loaded for another reason, the
/// text is read after the release.
///
/// Reports nothing but that false; only lack of memory throws, `std::bad_alloc`, and `version` is
/// untouched then. May be called from any thread, as long as none unloads a library that publishes
/// the variable to the whole process.
VELAHOST_EXPORT bool GetLibraryVersion(const char* name, std::string& version);

} // namespace VelaHost_OS
