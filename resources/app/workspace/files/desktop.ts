// A folder shown in the desktop's file manager, as the launcher's menu shows the data folder.
import { spawn } from 'node:child_process';

/** Started and left to itself: the file manager outlives the request, and a desktop without one says nothing. */
export function openOnDesktop(path: string, complain: (line: string) => void): void {
  const opener = process.platform === 'darwin' ? 'open' : 'xdg-open';
  const child = spawn(opener, [path], { detached: true, stdio: 'ignore' });
  child.on('error', (error) => complain(`${opener} failed: ${error.message}`));
  child.unref();
}
