#ifndef ENGINES_H
#define ENGINES_H

#include "EngineFactory.h"

#include <QGuiApplication>
#include <QString>

#include <memory>

/// The engines that the program is built with; nobody else names one. Main thread.
namespace Engines {

/// The kind of application object that the engines need. The arguments stay the caller's and live
/// as long as the object.
[[nodiscard]] std::unique_ptr<QGuiApplication> makeApplication(int &argc, char *argv[]);

/// The factory of the engine that a page run shall have; none when there is no such engine.
[[nodiscard]] std::unique_ptr<EngineFactory> makeFactory(const RunOptions &options);

/// The version of the Flash plug-in that a page would get: three numbers with points between them,
/// 0.0.0 without one; empty when the engine does not say it in time. Needs the application object.
[[nodiscard]] QString flashVersion();

} // namespace Engines

#endif
