# Answers every connection over TLS with "ok": server.rb PORT NAME.
require "openssl"
require "socket"

port, name = ARGV
context = OpenSSL::SSL::SSLContext.new
context.cert = OpenSSL::X509::Certificate.new(File.read("#{name}.pem"))
context.key = OpenSSL::PKey.read(File.read("#{name}.ref"))
server = OpenSSL::SSL::SSLServer.new(TCPServer.new("127.0.0.1", port.to_i), context)
loop do
  client = server.accept
  client.puts "ok"
  client.close
rescue OpenSSL::SSL::SSLError, SystemCallError => failure
  warn failure.message
end
