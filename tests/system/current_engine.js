// Runs each line of standard input, a statement as a JSON text, and answers with [result, error] in a line of JSON.
const readline = require("readline");
const { Session } = require(process.argv[2]);

const session = new Session(process.argv[3]);
readline.createInterface({ input: process.stdin }).on("line", line => {
    let answer = ["", ""];
    try {
        answer = [session.query(JSON.parse(line)), ""];
    } catch (error) {
        answer = ["", String(error)];
    }
    process.stdout.write(JSON.stringify(answer) + "\n");
});
