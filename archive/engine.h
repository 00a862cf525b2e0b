#pragma once

/// Start-up of the 7z engine.
namespace Vexel::Storage::Engine {

/// Makes the engine ready, once in the process; later calls do nothing. Ends the process when that fails:
/// then the library was not linked as it must be.
void start();

/// How many threads the engine may use: 1 before `start`, then the number of processors.
unsigned threadCount() noexcept;

} // namespace Vexel::Storage::Engine
