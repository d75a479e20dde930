#include "sweep.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "calls.h"
#include "program.h"

namespace {

constexpr int kPatience = 30'000;  // milliseconds for a run
constexpr std::size_t kLineMax = 1024;
constexpr std::size_t kProgress = 1000;
constexpr int kDecimal = 10;
constexpr int kWrongUse = 2;

bool isWrong(const std::string& verdict) { return verdict.starts_with("!"); }

// --- The table ---

const CallRow* rowOf(const std::string& function) {
  const auto* const row =
      std::find_if(std::begin(CALL_ROWS), std::end(CALL_ROWS),
                   [&](const CallRow& one) { return one.function == function; });
  return row == std::end(CALL_ROWS) ? nullptr : row;
}

// Names of a file's dynamic symbols, as nm prints them.
std::set<std::string> symbols(const std::string& options, const std::string& file) {
  std::set<std::string> found;
  std::FILE* const names = ::popen(("nm -D " + options + " '" + file + "'").c_str(), "r");
  std::array<char, kLineMax> line{};
  while (names != nullptr && std::fgets(line.data(), kLineMax, names) != nullptr) {
    const std::string text = line.data();
    const std::size_t begin = text.find_last_of(' ') + 1;
    found.insert(text.substr(begin, text.find_first_of("@\n", begin) - begin));
  }
  if (names == nullptr || ::pclose(names) != 0 || found.empty()) {
    throw std::runtime_error("nm cannot read " + file);
  }
  return found;
}

void checkTable(const std::string& binary) {
  const auto taken = symbols("--defined-only", FAULTS_LIBRARY);
  for (const std::string& name : symbols("--undefined-only", binary)) {
    const CallRow* const row = rowOf(name);
    if (row == nullptr) {
      throw std::runtime_error(name + " has no row in components/platform/faults/calls.h");
    }
    if (!row->errors.empty() && !taken.contains(name)) {
      throw std::runtime_error(name + " can fail, but faults.cpp does not take it over");
    }
  }
}

// --- One run ---

class Run {
 public:
  Run(const std::string& binary, const Product& product, const Fault* fault)
      : m_product(product), m_outcome{m_appliance, fault} {
    product.layOut(m_appliance);
    setFault(fault);
    execute(binary);
    std::istringstream journal(m_appliance.read("/journal"));
    std::istringstream log(m_appliance.read("/faults"));
    long second = 0;
    for (std::string text; journal >> second && std::getline(journal, text);) {
      m_outcome.journal.emplace_back(second, text.substr(1));
    }
    for (std::string line; std::getline(log, line);) m_outcome.log.push_back(line);
  }

  std::string verdict() const {
    const std::string wrong = whatIsWrong();
    if (!wrong.empty()) return "!" + wrong;
    const std::string verdict = m_product.verdict(m_outcome);
    return isIdle() && !isWrong(verdict) ? "nothing to shorten" : verdict;
  }

  // All that can fail in this run, which had no fault.
  std::vector<Fault> faults() const {
    std::vector<Fault> found;
    for (const std::string& line : m_outcome.log) {
      std::istringstream words(line);
      Fault fault;
      fault.product = m_product.name;
      long second = 0;
      words >> fault.kind >> fault.number >> second >> fault.function >> std::ws;
      std::getline(words, fault.about);
      if (second > m_product.until) break;
      if (fault.kind == "allocation") {
        found.push_back(fault);
        fault.kind = "from";
        found.push_back(fault);
      } else if (fault.kind == "call") {
        const CallRow* const row = rowOf(fault.function);
        if (row == nullptr) throw std::runtime_error(fault.function + " has no row in calls.h");
        std::istringstream errors{std::string(row->errors)};
        while (errors >> fault.error) found.push_back(fault);
      }
    }
    return found;
  }

  void show() const {
    for (const char* file : {"/faults", "/journal", "/err"}) {
      std::printf("--- %s\n%s", file, m_appliance.read(file).c_str());
    }
  }

 private:
  void setFault(const Fault* fault) const {
    for (const char* name : {"FAULTS_CALL", "FAULTS_ERROR", "FAULTS_ALLOCATION", "FAULTS_FROM"}) {
      ::unsetenv(name);
    }
    ::setenv("APPLIANCE_EPOCH", "0", 1);
    ::setenv("FAULTS_LOG", m_appliance.at("/faults").c_str(), 1);
    if (fault == nullptr) return;
    const char* const variable = !fault->isAllocation()  ? "FAULTS_CALL"
                                 : fault->kind == "from" ? "FAULTS_FROM"
                                                         : "FAULTS_ALLOCATION";
    ::setenv(variable, fault->number.c_str(), 1);
    ::setenv("FAULTS_ERROR", fault->error.c_str(), 1);
  }

  void execute(const std::string& binary) {
    std::optional<Channel> channel;
    if (m_product.output != Output::kFile) channel.emplace(Channel::kPipe);
    if (m_product.output == Output::kClosedPipe) channel->reader.reset();
    Program program(m_appliance, {.binary = binary,
                                  .arguments = m_product.arguments,
                                  .output = channel ? channel->writer->number : -1,
                                  .preload = FAULTS_LIBRARY,
                                  .seconds = kPatience / 1000});
    m_outcome.starter = program.parentStatus;
    if (program.daemon == 0) return;
    const Handle process(static_cast<int>(::syscall(SYS_pidfd_open, program.daemon, 0)));
    if (process.number < 0) throw std::runtime_error("pidfd_open fails");
    pollfd end = {.fd = process.number, .events = POLLIN, .revents = 0};
    m_hangs = ::poll(&end, 1, kPatience) <= 0;
    if (m_hangs) return;
    int status = 0;
    (void)::waitpid(program.daemon, &status, 0);
    program.daemon = 0;
    m_outcome.status = status;
  }

  bool hasLine(const std::string& line) const {
    return std::find(m_outcome.log.begin(), m_outcome.log.end(), line) != m_outcome.log.end();
  }

  // The call came, but there was nothing to make short.
  bool isIdle() const {
    return m_outcome.fault != nullptr && hasLine("nothing " + m_outcome.fault->function);
  }

  // With any program, whatever failed.
  std::string whatIsWrong() const {
    int kept = 0;
    for (const std::string& line : m_outcome.log) {
      if (!line.starts_with("open ")) continue;
      const bool isKept = line.ends_with(m_appliance.at(m_product.kept));
      if (!isKept || ++kept > m_product.mayKeep(m_outcome)) return "a lost descriptor: " + line;
    }
    const Fault* const fault = m_outcome.fault;
    if (fault != nullptr && !hasLine("hit " + fault->function) && !isIdle()) {
      return "the fault did not come";
    }
    if (m_hangs) return "it does not end";
    if (m_outcome.starter < 0) {
      return "the command that starts it was ended by a signal, or did not end in time";
    }
    if (m_outcome.status && WIFSIGNALED(*m_outcome.status)) {
      return "it was ended by signal " + std::to_string(WTERMSIG(*m_outcome.status));
    }
    const std::string outside = m_appliance.read("/outside");
    return outside.empty() ? "" : "changed outside the appliance: " + outside;
  }

  const Product& m_product;
  Appliance m_appliance;
  Outcome m_outcome;
  bool m_hangs = false;
};

// --- All of them ---

constexpr std::size_t kWorkersMax = 64;
constexpr int kSignalled = 128;

// The process that sweeps leads a group, with all that it starts.
volatile pid_t sweeper = 0;

void endAll() {
  (void)::kill(-sweeper, SIGKILL);
  while (::wait(nullptr) > 0) {
  }
}

// Runs the sweep in a process of its own, and leaves none behind, whatever ends it.
int supervise(const std::function<int()>& sweep) {
  sigset_t ends;
  (void)::sigemptyset(&ends);
  for (const int number : {SIGHUP, SIGINT, SIGPIPE, SIGTERM}) (void)::sigaddset(&ends, number);
  (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
  (void)::sigprocmask(SIG_BLOCK, &ends, nullptr);
  sweeper = ::fork();
  if (sweeper < 0) return EXIT_FAILURE;
  const bool isSweeper = sweeper == 0;
  if (isSweeper) (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  (void)::setpgid(sweeper, 0);
  for (const int number : {SIGHUP, SIGINT, SIGPIPE, SIGTERM}) {
    (void)std::signal(
        number, isSweeper ? SIG_DFL : [](int signal) {
          endAll();
          ::_exit(kSignalled + signal);
        });
  }
  (void)::sigprocmask(SIG_UNBLOCK, &ends, nullptr);
  if (isSweeper) {
    const int status = sweep();
    std::exit(status);
  }
  siginfo_t end{};
  (void)::waitid(P_PID, static_cast<id_t>(sweeper), &end, WEXITED | WNOWAIT);
  endAll();
  return end.si_code == CLD_EXITED ? end.si_status : kSignalled + end.si_status;
}

class Sweep {
 public:
  Sweep(std::string binary, const std::vector<Product>& products)
      : m_binary(std::move(binary)), m_products(products) {
    std::set<std::string> reached;
    for (const Product& product : products) {
      const Run run(m_binary, product, nullptr);
      const std::string verdict = run.verdict();
      if (isWrong(verdict)) {
        run.show();
        throw std::runtime_error(product.name + ", without a fault: " + verdict.substr(1));
      }
      for (Fault& fault : run.faults()) {
        reached.insert(fault.function);
        m_faults.push_back(std::move(fault));
      }
    }
    for (const CallRow& row : CALL_ROWS) {
      if (!row.errors.empty() && !reached.contains(std::string(row.function))) {
        throw std::runtime_error(std::string(row.function) + " can fail, but no product calls it");
      }
    }
  }

  int every(std::size_t step) {
    std::vector<Fault> chosen;
    for (std::size_t i = 0; i < m_faults.size(); i += step) chosen.push_back(m_faults[i]);
    m_faults = std::move(chosen);
    return all();
  }

  int only(const std::string& name) {
    std::erase_if(m_faults, [&](const Fault& fault) {
      return fault.name() != name && fault.product != name;
    });
    if (m_faults.empty()) {
      std::printf("there is no fault of the name %s\n", name.c_str());
      return kWrongUse;
    }
    if (m_faults.size() > 1) return all();
    const Run run = runWith(m_faults[0]);
    run.show();
    const std::string verdict = run.verdict();
    report(m_faults[0], verdict);
    return isWrong(verdict) ? 1 : 0;
  }

 private:
  Run runWith(const Fault& fault) const {
    const auto product =
        std::find_if(m_products.begin(), m_products.end(),
                     [&](const Product& one) { return one.name == fault.product; });
    return {m_binary, *product, &fault};
  }

  static void report(const Fault& fault, const std::string& verdict) {
    const std::string which = fault.kind == "from" ? "allocation" : fault.kind;
    std::printf("\n%s, %s %s, %s of %s%s%s\n  %s\n", fault.product.c_str(), which.c_str(),
                fault.number.c_str(), fault.function.c_str(), fault.about.c_str(),
                fault.isAllocation() ? " bytes" : (": " + fault.error).c_str(),
                fault.kind == "from" ? " and all that follow" : "",
                verdict.substr(isWrong(verdict) ? 1 : 0).c_str());
  }

  // In one of some processes that share the faults: a line for each, its index and the verdict.
  [[noreturn]] void work(std::size_t first, std::size_t step, int results) const {
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (std::size_t i = first; i < m_faults.size(); i += step) {
      const Run run = runWith(m_faults[i]);
      const std::string line = std::to_string(i) + " " + run.verdict() + "\n";
      if (::write(results, line.data(), line.size()) < 0) break;
    }
    ::_exit(0);
  }

  std::map<std::size_t, std::string> results() const {
    const std::size_t count =
        std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, kWorkersMax);
    std::printf("%zu faults, in %zu processes\n", m_faults.size(), count);
    (void)std::fflush(stdout);
    Channel channel(Channel::kPipe);
    for (std::size_t i = 0; i < count; ++i) {
      if (::fork() == 0) work(i, count, channel.writer->number);
    }
    channel.writer.reset();
    std::map<std::size_t, std::string> found;
    std::FILE* const lines = ::fdopen(::dup(channel.reader->number), "r");
    std::array<char, kLineMax> line{};
    while (lines != nullptr && std::fgets(line.data(), kLineMax, lines) != nullptr) {
      char* end = nullptr;
      const std::size_t index = std::strtoul(line.data(), &end, kDecimal);
      found[index] = std::string(end + 1, std::strcspn(end + 1, "\n"));
      if (found.size() % kProgress == 0) std::printf("  %zu done\n", found.size());
      (void)std::fflush(stdout);
    }
    if (lines != nullptr) (void)std::fclose(lines);
    while (::wait(nullptr) > 0) {
    }
    return found;
  }

  int all() const {
    const auto start = std::chrono::steady_clock::now();
    auto verdicts = results();
    std::map<std::string, std::map<std::string, int>> counts;
    int findings = 0;
    for (std::size_t i = 0; i < m_faults.size(); ++i) {
      const Fault& fault = m_faults[i];
      const std::string verdict = verdicts.contains(i) ? verdicts[i] : "!the sweep itself failed";
      ++counts[fault.product][isWrong(verdict) ? "FINDINGS" : verdict];
      if (!isWrong(verdict)) continue;
      ++findings;
      report(fault, verdict);
      std::printf("  again: scripts/faults --only %s\n", fault.name().c_str());
    }
    for (const auto& [product, states] : counts) {
      int sum = 0;
      for (const auto& [state, count] : states) sum += count;
      std::printf("%s: %d faults\n", product.c_str(), sum);
      for (const auto& [state, count] : states) std::printf("%8d %s\n", count, state.c_str());
    }
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    std::printf("%zu faults, %d findings, %.0f seconds\n", m_faults.size(), findings,
                passed.count());
    return findings == 0 ? 0 : 1;
  }

  std::string m_binary;
  const std::vector<Product>& m_products;
  std::vector<Fault> m_faults;
};

int sweepThrough(const std::vector<std::string>& words, const std::string& binary,
                 const std::vector<Product>& products) {
  try {
    checkTable(binary);
    Sweep sweep(binary, products);
    return words[0] == "only" ? sweep.only(words[1]) : sweep.every(std::stoul(words[1]));
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 1;
  }
}

}  // namespace

std::string Fault::name() const {
  return product + ":" + kind + ":" + number + (isAllocation() ? "" : ":" + error);
}

bool Outcome::has(const std::string& entry, long from, long to) const {
  return std::any_of(journal.begin(), journal.end(), [&](const auto& one) {
    return one.first >= from && one.first < to && one.second.starts_with(entry);
  });
}

int sweepMain(int argc, char** argv, const std::string& binary,
              const std::vector<Product>& products) {
  // What was handed down is not the program's.
  (void)::close_range(STDERR_FILENO + 1, ~0U, 0);
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() != 2) {
    std::printf("usage: every NUMBER | only NAME\n");
    return kWrongUse;
  }
  return supervise([&] { return sweepThrough(words, binary, products); });
}
