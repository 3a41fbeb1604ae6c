#pragma once
// What a program needs to know about the terminal it writes to.

namespace plexa {

enum class PXStandardStream { output, error };

bool PXIsTerminal(PXStandardStream stream);
// The terminal's width in columns: the window size, else $COLUMNS, else 80.
int PXTerminalColumns(PXStandardStream stream);

}  // namespace plexa
