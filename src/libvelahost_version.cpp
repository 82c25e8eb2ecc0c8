#include <VelaHost_OS/LibraryVersion.h>

const char* const LIBVELAHOST_FILE_VERSION_STRING = "KXcid 1000.0.0.22 VelaHost Library";
const char* const LIBVELAHOST_PRODUCT_VERSION_STRING = "KXcid 1.0.0.73 KORAVEL";
