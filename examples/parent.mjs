#!/usr/bin/env node
// Keeps one zkturnd running, as the program that embeds it does.
//
//     node parent.mjs CONFIG.json [PROGRAM]        (PROGRAM is zkturnd unless given)
//
// Starts the daemon, gives it its configuration line and reads its status line; starts it again
// when it ends by itself; stops it, and itself, on Ctrl-C or SIGTERM.

import { spawn } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { createInterface } from 'node:readline';

const stopPatience = 5000;
// So that a daemon that ends at once does not keep the machine busy.
const restartPause = 1000;

// Runs the daemon once. Calls `onReady(port)`, or `onError(message)` when it answers with its error
// line, and `onEnd(status)` when it has ended; `status` is null when a signal ended it. Returns the
// process.
function runRelay(program, config, { onReady, onError, onEnd }) {
  // Node lets no other child inherit these pipes. That matters: the daemon serves until the last
  // writer of its standard input is gone.
  const daemon = spawn(program, [], { stdio: ['pipe', 'pipe', 'inherit'] });
  daemon.on('error', (error) => onError(error.message));  // it could not be started
  daemon.on('close', onEnd);
  daemon.stdin.on('error', () => {});  // it ended before it had read its configuration
  daemon.stdin.write(JSON.stringify(config) + '\n');
  createInterface({ input: daemon.stdout }).once('line', (line) => {
    const answer = JSON.parse(line);
    answer.status === 'ready' ? onReady(answer.port) : onError(answer.message);
  });
  return daemon;
}

function main(configFile, program = 'zkturnd') {
  const config = JSON.parse(readFileSync(configFile, 'utf8'));
  let daemon;
  let stopping = false;
  let restart;

  const start = () => {
    daemon = runRelay(program, config, {
      // The port is a new one after every start: clients have to be told.
      onReady: (port) =>
        console.log(`process ${daemon.pid} serves turn:127.0.0.1:${port}?transport=udp`),
      // Starting it again would bring the same answer.
      onError: (message) => {
        console.error(`zkturnd: ${message}`);
        process.exit(1);
      },
      onEnd: (status) => {
        daemon = undefined;
        if (stopping) {
          console.log(`stopped with status ${status}`);
          process.exit(status ?? 1);
        }
        console.log(`it ended with status ${status}, starting it again`);
        restart = setTimeout(start, restartPause);
      },
    });
  };

  const stop = () => {
    stopping = true;
    clearTimeout(restart);
    if (!daemon) {
      process.exit(0);
    }
    daemon.stdin.end();
    setTimeout(() => daemon?.kill('SIGKILL'), stopPatience);
  };
  process.on('SIGINT', stop);
  process.on('SIGTERM', stop);
  start();
}

const [configFile, program] = process.argv.slice(2);
if (!configFile) {
  console.error('usage: node parent.mjs CONFIG.json [PROGRAM]');
  process.exit(2);
}
main(configFile, program);
