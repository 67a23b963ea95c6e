#ifndef DAEMON_SIGNALS_H
#define DAEMON_SIGNALS_H

/// SIGTERM, SIGINT and SIGHUP as a pollable descriptor. Create it before any thread is started, so that no
/// thread receives them.
class Signals
{
public:
    Signals();
    ~Signals();

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Readable when take() has something.
    int descriptor() const { return mDescriptor; }

    /// The next pending signal; 0 if there is none.
    int take();

private:
    int mDescriptor;
};

#endif
