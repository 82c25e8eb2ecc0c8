// A library that publishes a version text the way GetLibraryVersion reads it; the build names the
// variable and gives the text.

extern "C" {
[[gnu::visibility("default")]] extern const char* VERSION_VARIABLE;
const char* VERSION_VARIABLE = VERSION_TEXT;
}
