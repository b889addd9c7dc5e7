// SPDX-License-Identifier: GPL-3.0-only
// Sends the messages that come as lines of JSON, {"subscription", "content", "options"}, with the package web-push as it
// is, and answers each with a line: {"status", "headers"}, also for a refusal.
'use strict';

const readline = require('readline');
const path = require('path');

const webpush = require(path.join(process.argv[2], 'node_modules', 'web-push'));

function told(answer) {
  console.log(JSON.stringify({ status: answer.statusCode, headers: answer.headers, body: answer.body }));
}

async function main() {
  for await (const line of readline.createInterface({ input: process.stdin })) {
    const message = JSON.parse(line);
    try {
      told(await webpush.sendNotification(message.subscription, message.content, message.options));
    } catch (error) {
      if (!(error instanceof webpush.WebPushError)) throw error;
      told(error);
    }
  }
}

main();
