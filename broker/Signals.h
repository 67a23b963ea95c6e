#ifndef BROKER_SIGNALS_H
#define BROKER_SIGNALS_H

/// SIGTERM, SIGINT and SIGHUP as something to poll. To be made before any thread is started, so that none
/// gets them.
class Signals
{
public:
    Signals();
    ~Signals();

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Readable when take() has something.
    int descriptor() const { return mDescriptor; }

    /// The next signal that has come; 0 if there is none.
    int take();

private:
    int mDescriptor;
};

#endif
