export function daysUntilWeekend(date) {
  const day = date.getDay();
  return day === 0 || day === 6 ? 0 : 6 - day;
}
