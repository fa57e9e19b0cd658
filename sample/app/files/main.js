import { daysUntilWeekend } from "./lib/util.js";

export function main(host) {
  host.show(`Hello from Tessal! ${daysUntilWeekend(new Date())} days to the weekend.`);
}
