#ifndef STATUSCTL_BASE_ENDING_H
#define STATUSCTL_BASE_ENDING_H

/// Ends the process by a signal, even if the signal was caught or blocked. The parent sees 128+n.
[[noreturn]] void endBy(int signal);

/// Lets SIGINT and SIGQUIT end the process even if the parent ignored them: a shell without job control
/// starts background commands ("&") with both ignored. For commands that run until a signal ends them.
void obeyInterrupts();

/// Sets a function that leaveWith() calls once, before it prints the reason: the full-screen display would
/// hide the text.
void setRestore(void (*restore)());
void restoreBeforeLeaving();

#endif
