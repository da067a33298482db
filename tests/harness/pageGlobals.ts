// The page's vendored browser builds put themselves on `self`, the window; Node.js has no `self`.
(globalThis as { self?: unknown }).self ??= globalThis;
