// Follows status values in Rust, without any crate. Prints each value, until its standard input ends.
//
//     rustc -l statusmanager-c rust-loop.rs && ./rust-loop KEY...

use std::ffi::{CStr, CString};
use std::os::raw::{c_char, c_int, c_short, c_ulong, c_void};
use std::{env, process, ptr};

// What of statusmanager/status.h is used here.
mod c {
    use super::*;

    pub enum Status {} // status_t

    #[repr(C)]
    pub struct Values {
        pub count: usize,
        pub pairs: *const c_void,
    }

    #[repr(C)]
    pub struct Item {
        pub kind: c_int,
        pub result: c_int,
        pub tag: u64,
        pub number: u64,
        pub key: *const c_char,
        pub value: *const c_char,
        pub values: Values,
    }

    #[repr(C)]
    pub struct PollFd {
        pub fd: c_int,
        pub events: c_short,
        pub revents: c_short,
    }

    pub const CHANGE: c_int = 1;
    pub const POLLIN: c_short = 1;

    extern "C" {
        pub fn status_open(timeout_ms: c_int, status: *mut *mut Status) -> c_int;
        pub fn status_close(status: *mut Status) -> c_int;
        pub fn status_subscribe(status: *mut Status, keys: *const *const c_char, count: usize) -> c_int;
        pub fn status_fd(status: *mut Status) -> c_int;
        pub fn status_next(status: *mut Status, item: *mut *mut Item) -> c_int;
        pub fn status_strerror(result: c_int) -> *const c_char;
        pub fn status_free(memory: *const c_void);
        pub fn poll(fds: *mut PollFd, count: c_ulong, timeout_ms: c_int) -> c_int;
    }
}

fn text(of: *const c_char) -> String {
    unsafe { CStr::from_ptr(of) }.to_string_lossy().into_owned()
}

fn check(result: c_int) -> Result<c_int, String> {
    if result >= 0 {
        Ok(result)
    } else {
        Err(text(unsafe { c::status_strerror(result) }))
    }
}

/// An open status, which is closed when it is dropped.
struct Status(*mut c::Status);

impl Status {
    fn open(timeout_ms: c_int) -> Result<Status, String> {
        let mut status = ptr::null_mut();
        check(unsafe { c::status_open(timeout_ms, &mut status) })?;
        Ok(Status(status))
    }

    fn subscribe(&self, keys: &[String]) -> Result<(), String> {
        let keys: Vec<CString> = keys.iter().map(|key| CString::new(key.as_str()).unwrap()).collect();
        let pointers: Vec<*const c_char> = keys.iter().map(|key| key.as_ptr()).collect();
        check(unsafe { c::status_subscribe(self.0, pointers.as_ptr(), pointers.len()) }).map(|_| ())
    }

    fn fd(&self) -> c_int {
        unsafe { c::status_fd(self.0) }
    }

    /// The next change of a value, or None if there is none now.
    fn next_change(&self) -> Result<Option<(String, String)>, String> {
        let mut item = ptr::null_mut();
        while check(unsafe { c::status_next(self.0, &mut item) })? == 1 {
            let taken = unsafe { &*item };
            let change = (taken.kind == c::CHANGE).then(|| (text(taken.key), text(taken.value)));
            unsafe { c::status_free(item as *const c_void) };
            if change.is_some() {
                return Ok(change);
            }
        }
        Ok(None)
    }
}

impl Drop for Status {
    fn drop(&mut self) {
        unsafe { c::status_close(self.0) };
    }
}

fn follow(keys: &[String]) -> Result<(), String> {
    let status = Status::open(5000)?;
    status.subscribe(keys)?;
    let mut fds = [0, status.fd()].map(|fd| c::PollFd { fd, events: c::POLLIN, revents: 0 });
    while fds[0].revents == 0 {
        unsafe { c::poll(fds.as_mut_ptr(), 2, -1) };
        while let Some((key, value)) = status.next_change()? {
            println!("{}={}", key, value);
        }
    }
    Ok(())
}

fn main() {
    let keys: Vec<String> = env::args().skip(1).collect();
    if let Err(error) = follow(&keys) {
        eprintln!("rust-loop: {}", error);
        process::exit(1);
    }
}
