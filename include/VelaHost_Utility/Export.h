/// @file
/// The mark of what is exported.

#pragma once

/// Marks what the shared library exports; everything else in it is hidden. Exception types carry
/// it too, so that a handler in one module catches what another module throws.
#define VELAHOST_EXPORT [[gnu::visibility("default")]]
