// Queries the device and makes a sale, with the library. README.md says how to run it and what exit status 3 asks for.
import com.sun.jna.Library;
import com.sun.jna.Native;
import com.sun.jna.Pointer;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.Base64;
import java.util.concurrent.ThreadLocalRandom;

public class Venda {
    /** Results are Pointers: JNA would decode a String before we know whether it is UTF-8. */
    interface Fiscora extends Library {
        Pointer ConsultarSAT(int session);
        Pointer EnviarDadosVenda(int session, byte[] code, byte[] sale);
        int CodigoErro();
    }
    static final Fiscora LIBRARY = Native.load("libfiscora.so.1", Fiscora.class);
    static final PrintStream OUT = new PrintStream(System.out, true, StandardCharsets.UTF_8);
    static final int OK = 0, BAD_REQUEST = 8, NOT_SOLD = 1, OUTCOME_UNKNOWN = 3;
    static final int EEEEE = 1, DOCUMENT = 6, KEY = 8; // fields of an answer
    static final Path PENDING = Path.of("pendente.txt");
    /** The answer's fields, copied; all are empty if it is not this call's, or only says that the device is busy. */
    static String[] receive(String operation, int session, Pointer result) {
        String answer = result.getString(0, "UTF-8"); // some devices answer in Latin-1
        int status = LIBRARY.CodigoErro();
        OUT.printf("%s, sessão %06d: status %d, %.40s%n", operation, session, status, answer);
        boolean own = status == OK && answer.matches(String.format("(?s)%06d\\|(?!..09[89])[0-9]{5}\\|.*", session));
        return ((own ? answer : "") + "|".repeat(KEY)).split("\\|", -1);
    }
    static int stop(int exitStatus, String why) {
        OUT.println(why);
        return exitStatus;
    }
    static int sell(byte[] code, byte[] sale) throws Exception {
        int session = ThreadLocalRandom.current().nextInt(999_999);
        if (!receive("ConsultarSAT", session, LIBRARY.ConsultarSAT(session))[EEEEE].equals("08000"))
            return stop(NOT_SOLD, "O equipamento não está em operação");
        ++session;
        Files.writeString(PENDING, String.format("%06d%n", session), StandardOpenOption.CREATE_NEW);
        String[] fields = receive("EnviarDadosVenda", session, LIBRARY.EnviarDadosVenda(session, code, sale));
        if (fields[EEEEE].isEmpty() && LIBRARY.CodigoErro() != BAD_REQUEST)
            return stop(OUTCOME_UNKNOWN, "Não venda de novo: não se sabe se esta foi feita. Veja README.md");
        boolean sold = fields[EEEEE].equals("06000");
        if (sold && !fields[KEY].matches("CFe[0-9]{44}")) // it becomes a file name
            return stop(OUTCOME_UNKNOWN, "A chave de acesso é inválida");
        if (sold) OUT.println("Gravado: " + Files.write(Path.of(fields[KEY] + ".xml"), Base64.getDecoder().decode(fields[DOCUMENT])));
        Files.delete(PENDING);
        return sold ? 0 : NOT_SOLD;
    }

    public static void main(String[] arguments) throws Exception {
        if (Files.exists(PENDING)) System.exit(stop(OUTCOME_UNKNOWN, "Resolva primeiro a venda de pendente.txt: veja README.md"));
        // As C takes texts; by default, JNA encodes them as the user's locale says.
        byte[] code = Native.toByteArray(System.getenv("CODIGO_DE_ATIVACAO"), "UTF-8");
        System.exit(sell(code, Native.toByteArray(Files.readString(Path.of("venda.xml")), "UTF-8")));
    }
}
