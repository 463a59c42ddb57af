import { text } from "./text.js";

const show = () => (document.getElementById("text").innerText = text);
show();
if (module.hot) module.hot.accept("./text.js", show);
