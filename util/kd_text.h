// Small text helpers shared by the parsers (read marks, chunk sizes) and the
// texts sent to clients.
#pragma once

// Value of a hexadecimal digit, -1 for any other character.
inline int kd_hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Replaces each tab by a space in place, so that a stored text can stand in
// a tab-separated field; returns text (null stays null).
inline char *tab2space(char *text)
{
    if (!text)
        return text;
    for (char *p = text; *p; p++) {
        if (*p == '\t')
            *p = ' ';
    }
    return text;
}
