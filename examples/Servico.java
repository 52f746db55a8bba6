// Makes a sale through fiscorad: the same key goes out until the outcome is known, and the next run goes on with it.
import java.io.IOException;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.file.*;
import java.time.Duration;
import java.util.UUID;
public class Servico {
    static final Path KEY = Path.of("chave.txt"); // of the sale in hand

    /** The answer; asks again as long as there is none or it is no outcome. */
    static HttpResponse<byte[]> ask(HttpRequest.Builder request) throws InterruptedException {
        for (;; Thread.sleep(2000)) {
            try {
                var answer = HttpClient.newHttpClient().send(request.timeout(Duration.ofSeconds(90)).build(),
                        HttpResponse.BodyHandlers.ofByteArray());
                if (answer.statusCode() != 202 && answer.statusCode() < 500) return answer;
                System.out.println("Ainda sem desfecho: " + new String(answer.body()));
            } catch (IOException problem) {
                System.out.println("Ainda sem desfecho: " + problem);
            }
        }
    }
    public static void main(String[] arguments) throws IOException, InterruptedException {
        if (Files.notExists(KEY) || Files.size(KEY) == 0) // on disk before the first attempt
            Files.writeString(KEY, "caixa1-" + UUID.randomUUID(), StandardOpenOption.CREATE, StandardOpenOption.DSYNC);
        String key = Files.readString(KEY), sales = arguments[0] + "/v1/vendas";
        var answer = ask(HttpRequest.newBuilder(URI.create(sales)).header("Idempotency-Key", key)
                .header("Content-Type", "application/xml").POST(HttpRequest.BodyPublishers.ofFile(Path.of("venda.xml"))));
        String outcome = new String(answer.body()); // JSON; its access key and its state are plain ASCII
        String accessKey = outcome.replaceAll("(?s).*\"chaveConsulta\":\"(CFe[0-9]{44})\".*", "$1");
        System.out.println(accessKey); // of a sale that was not booked: the whole outcome
        var document = HttpRequest.newBuilder(URI.create(sales + "/" + key + "/documento"));
        if (outcome.contains("\"documento\":")) Files.write(Path.of(accessKey + ".xml"), ask(document).body());
        if (outcome.contains("\"estado\":")) Files.delete(KEY); // final: the next sale needs a key of its own
        System.exit(answer.statusCode() < 300 ? 0 : 1);
    }
}
