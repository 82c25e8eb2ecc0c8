// A library that publishes its version: the symbol of its name followed by "_LibraryVersion".

extern "C" {
extern const char* const versioned_LibraryVersion;
const char* const versioned_LibraryVersion = "KXcid 2.0.0.1 an example of a versioned library";
}
