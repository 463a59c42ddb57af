# The application of the tests for Puma: a page, uploads, events and an absolute redirect.

require "digest"
require "rack"

go_on = Queue.new

upload = lambda do |input|
  length, digest = 0, Digest::SHA256.new
  while (data = input.read(65536))
    length += data.bytesize
    digest << data
  end
  "#{length} #{digest.hexdigest}"
end

events = Enumerator.new do |out|
  out << "data: first\n\n"
  go_on.pop
  out << "data: second\n\n"
end

text = lambda { |body, type = "text/plain"| [200, { "Content-Type" => type }, body] }

run(lambda do |env|
  case env["PATH_INFO"]
  when "/" then text.call(["This is Puma.\n"])
  when "/folder/" then text.call(["This is the folder.\n"])
  when "/folder" then [302, { "Location" => Rack::Request.new(env).base_url + "/folder/" }, []]
  when "/upload" then text.call([upload.call(env["rack.input"])])
  when "/events" then text.call(events, "text/event-stream")
  when "/next"
    go_on << true
    text.call([""])
  else [404, {}, []]
  end
end)
