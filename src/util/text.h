// Small helpers for the texts the library prints.
#pragma once

namespace tvox
{

// A name or path as printed in messages: printf's own text for a null pointer.
inline const char *printable(const char *text)
{
    return text == nullptr ? "(null)" : text;
}

} // namespace tvox
