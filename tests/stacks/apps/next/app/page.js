"use client";

import { text } from "./text.js";
import { useState } from "react";

export default function Page() {
  const [clicks, setClicks] = useState(0);
  return <button onClick={() => setClicks(clicks + 1)}>{text}, {clicks} clicks</button>;
}
