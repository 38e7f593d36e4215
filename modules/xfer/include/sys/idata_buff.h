// The byte buffer through which results cross to the host (placeholder contract; slot order matters).
#pragma once
namespace sys {
class IDataBuff;
}
