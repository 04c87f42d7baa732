// NetlistFilter_p.h - the byte filter shared by the netlist readers.
#pragma once

namespace netlist {
/// True for the bytes a netlist reader keeps: tab, line feed and 32 to 254.
inline bool keeps(int c) { return c == 9 || c == 10 || (c >= 32 && c <= 254); }
} // namespace netlist
