package stor.device.skiplist;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;

/**
 * Runs another JVM and fails if it fails, or if its output holds a report that {@link JvmOutput}
 * forbids. The arguments are those of the other JVM.
 */
public final class StrictJvm {
    private StrictJvm() {
    }

    /** Runs the other JVM and ends this one with the verdict as its exit status. */
    public static void main(String[] args) throws IOException, InterruptedException {
        Process jvm = start(List.of(args));
        JvmOutput output = new JvmOutput();
        try (BufferedReader lines = new BufferedReader(
                new InputStreamReader(jvm.getInputStream(), StandardCharsets.UTF_8))) {
            for (String line = lines.readLine(); line != null; line = lines.readLine()) {
                String shown = output.show(line);
                if (shown != null) {
                    System.out.println(shown);
                }
            }
        }
        int status = jvm.waitFor();
        System.out.println("exit status " + status + ", JNI warnings and leak reports: "
                + output.allowed() + " allowed, " + output.forbidden() + " forbidden");
        System.exit(status != 0 ? status : output.forbidden() > 0 ? 1 : 0);
    }

    /** Starts a JVM of this kind, its error stream joined to its output. */
    static Process start(List<String> args) throws IOException {
        List<String> command = new ArrayList<>();
        command.add(ProcessHandle.current().info().command().orElse("java"));
        command.addAll(args);
        return new ProcessBuilder(command).redirectErrorStream(true).start();
    }
}
