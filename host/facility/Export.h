// Export: what the shared libraries show.
#pragma once

/// Marks what an agent may use. Everything else is hidden in the shared libraries.
///
/// Whole classes carry it, not their functions alone: attributes and exceptions are known by their
/// addresses, which have to be the same ones in a library and in the program that uses it, also in
/// a program that is compiled with hidden visibility itself.
#define TESSEL_API [[gnu::visibility("default")]]
