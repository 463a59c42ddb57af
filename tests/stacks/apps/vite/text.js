export const text = "first text";
