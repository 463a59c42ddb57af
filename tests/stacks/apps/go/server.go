// The application of the tests in Go: files, uploads, events and a redirect. Usage: server PORT
package main

import (
	"crypto/sha256"
	"fmt"
	"io"
	"net/http"
	"os"
)

func main() {
	next := make(chan bool)
	http.Handle("/", http.FileServer(http.Dir("../site")))
	http.HandleFunc("/upload", func(response http.ResponseWriter, request *http.Request) {
		hash := sha256.New()
		length, _ := io.Copy(hash, request.Body)
		fmt.Fprintf(response, "%d %x", length, hash.Sum(nil))
	})
	http.HandleFunc("/events", func(response http.ResponseWriter, request *http.Request) {
		response.Header().Set("Content-Type", "text/event-stream")
		fmt.Fprint(response, "data: first\n\n")
		response.(http.Flusher).Flush()
		<-next
		fmt.Fprint(response, "data: second\n\n")
	})
	http.HandleFunc("/next", func(response http.ResponseWriter, request *http.Request) { next <- true })
	fmt.Println(http.ListenAndServe("127.0.0.1:"+os.Args[1], nil))
}
