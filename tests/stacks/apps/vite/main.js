import { text } from "./text.js";

const show = (text) => (document.getElementById("text").innerText = text);
show(text);
if (import.meta.hot) import.meta.hot.accept("./text.js", (changed) => show(changed.text));
