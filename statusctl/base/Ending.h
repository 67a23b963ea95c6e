#ifndef STATUSCTL_BASE_ENDING_H
#define STATUSCTL_BASE_ENDING_H

/// Ends the process by a signal, as if nothing had caught or blocked it: whoever started it sees 128+n.
[[noreturn]] void endBy(int signal);

/// Lets SIGINT and SIGQUIT end the process, whatever it was started with: a shell without job control starts
/// what stands before "&" with both ignored. For commands that run until somebody ends them.
void obeyInterrupts();

/// Sets the function that leaveWith() calls once, before it prints the reason: a screen that is on would hide
/// the text.
void setRestore(void (*restore)());
void restoreBeforeLeaving();

#endif
