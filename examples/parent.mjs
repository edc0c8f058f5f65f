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

// Runs the daemon once. Calls `onReady(port)`, or `onError(sentence)` when there is no daemon to be
// had, and `onEnd(status)` when it has ended; `status` is null when a signal ended it. Returns the
// process.
function runRelay(program, config, { onReady, onError, onEnd }) {
  // Node lets no other child inherit these pipes. That matters: the daemon serves until the last
  // writer of its standard input is gone. Detached, it has a session of its own, so that Ctrl-C at
  // a terminal is for this program only, which then stops the daemon in order.
  const daemon = spawn(program, [], { stdio: ['pipe', 'pipe', 'inherit'], detached: true });
  let isReady = false;
  daemon.on('error', ({ code }) => onError(`${program} cannot be started: ${code}`));
  daemon.on('close', (status) => {
    if (!isReady) {
      onError(`${program}: it is no zkturnd, or it ended before it was ready`);
    }
    onEnd(status);
  });
  daemon.stdin.on('error', () => {});  // it ended before it had read its configuration
  daemon.stdin.write(JSON.stringify(config) + '\n');
  createInterface({ input: daemon.stdout }).once('line', (line) => {
    let answer;
    try {
      answer = JSON.parse(line);
    } catch {
      daemon.kill();
      return;
    }
    isReady = answer.status === 'ready';
    if (isReady) {
      onReady(answer.port);
    } else if (answer.message) {
      onError(`${program}: ${answer.message}`);
    }
  });
  return daemon;
}

function main(configFile, program = 'zkturnd') {
  const fail = (sentence) => {
    console.error(sentence);
    process.exit(1);
  };
  let config;
  try {
    config = JSON.parse(readFileSync(configFile, 'utf8'));
  } catch (error) {
    fail(`${configFile} cannot be used: ${error.message}`);
  }
  let daemon;
  let stopping = false;
  let restart;

  const start = () => {
    daemon = runRelay(program, config, {
      // The port is a new one after every start: clients have to be told.
      onReady: (port) =>
        console.log(`process ${daemon.pid} serves turn:127.0.0.1:${port}?transport=udp`),
      // Starting it again would bring the same.
      onError: (sentence) => stopping || fail(sentence),
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
