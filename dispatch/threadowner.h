// ThreadOwner: the one owner of the worker singletons (capture, recording stop, card, face and
// liveness threads). Each instance() builds its worker on the heap on first use and hands it
// here. When the application object goes (a post routine: it runs inside QCoreApplication's
// destructor, before any static destructor), every worker is told to stop, waited for and
// deleted, newest first. So no worker is still inside the device library while the library's
// own statics (its cameras, its profile) are destroyed: with function-local statics the order
// would follow whichever was reached first, and the library is usually reached after the worker.
// A worker is therefore not to be reached once the application object is gone.
#pragma once

#include <QThread>

#include <functional>

namespace ThreadOwner {

// Takes a worker over; stop() asks its loop to end (the owner then waits for it).
void adopt(QThread* worker, std::function<void()> stop);

template <class T, class Base>
T* adopt(T* worker, void (Base::*stop)())
{
    adopt(static_cast<QThread*>(worker), [worker, stop] { (worker->*stop)(); });
    return worker;
}

// Stops, waits for and deletes every adopted worker now (what the post routine does).
void stopAll();

}  // namespace ThreadOwner
