// Compressor batches as Qmaster reports them: the cluster list from
// "qmasterprefs", the batch XML of Batch Monitor and Share Monitor, and
// Compressor's history files when a monitor does not answer.
#include <dirent.h>

#include <algorithm>
#include <string_view>

#include "AppController.h"
#include "FileAttributes.h"
#include "MVFileManager.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVTaskEx.h"
#include "MVXMLDocument.h"
#include "MVXMLParser.h"

using namespace quillon;

namespace {

const char* const kQmasterPrefsTool = "/usr/sbin/qmasterprefs";
const char* const kBatchMonitorBundleID = "com.apple.BatchMonitor";
const char* const kCompressorBundleID = "com.apple.Compressor";
const char* const kCompressorQmasterPrefs =
    "/Contents/PlugIns/Compressor/CompressorKit.bundle/Contents/Frameworks/Qmaster.framework/Resources/qmasterprefs";
const char* const kBatchMonitorExecutable = "/Contents/MacOS/Batch Monitor";
const char* const kShareMonitorExecutable =
    "/Contents/PlugIns/Compressor/CompressorKit.bundle/Contents/EmbeddedApps/Share Monitor.app/Contents/MacOS/"
    "Share Monitor";

// qmasterprefs may wait for the network; the monitors are told to give up
// after 0.3 s themselves and get 10 s before they are stopped.
constexpr double kQmasterPrefsTimeout = 15.0;
constexpr double kMonitorTimeout = 10.0;
// A monitor that could not reach its cluster prints a line or nothing.
constexpr std::size_t kTimedOutAnswerBytes = 10;
// A history file younger than this may still be being written.
constexpr auto kHistorySettleTime = std::chrono::seconds(2);

std::string_view bytesOf(const MVTaskEx::Data& data) {
  return {reinterpret_cast<const char*>(data.data()), data.size()};
}

MVPlistValue recordFromAttributes(const MVXMLNode& element) {
  MVPlistValue record{MVPlistValue::Dictionary{}};
  for (const auto& [name, value] : element.attributes()) record.set(name, value);
  return record;
}

void appendOnce(MVPlistValue& files, const std::string& entry) {
  if (entry.empty()) return;
  const MVPlistValue::Array* list = files.array();
  if (list && std::find(list->begin(), list->end(), MVPlistValue(entry)) != list->end()) return;
  files.append(entry);
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

std::optional<std::string> executableInBundle(const std::optional<std::string>& bundle, const char* suffix) {
  if (!bundle) return std::nullopt;
  return *bundle + suffix;
}

// A monitor's answer, repaired where it is not well-formed XML, and its
// batch elements. Nothing (and a log line) when it cannot be read at all.
struct MonitorAnswer {
  MVXMLDocument document;
  std::vector<MVXMLNode> batches;
};

std::optional<MonitorAnswer> batchesInMonitorAnswer(const MVTaskEx::Data& data) {
  std::string error;
  auto document = MVXMLDocument::documentWithData(bytesOf(data), MVXMLDocument::kTidyXML, &error);
  if (!document) {
    MVLog::appendLog("Error loading XML document: %@", error);
    return std::nullopt;
  }
  error.clear();
  std::vector<MVXMLNode> batches = document->nodesForXPath(".//batchStatus", &error);
  if (!error.empty()) {
    MVLog::appendLog("Unable to get batches - %@", error);
    return std::nullopt;
  }
  return MonitorAnswer{std::move(*document), std::move(batches)};
}

}  // namespace

AppController::ClusterBatches AppController::qmasterBatches() {
  ClusterBatches all;
  for (const std::string& cluster : qmasterClusters()) all[cluster] = qmasterBatchesInCluster(cluster);
  return all;
}

std::vector<std::string> AppController::qmasterClusters() {
  std::vector<std::string> clusters = {"This Computer"};
  // Names are not merged: a cluster both tools list is asked twice and the
  // later answer wins.
  if (auto listed = qmasterClusters(kQmasterPrefsTool)) clusters.insert(clusters.end(), listed->begin(), listed->end());
  if (auto tool = executableInBundle(pathForAppWithBundleID(kCompressorBundleID), kCompressorQmasterPrefs))
    if (auto listed = qmasterClusters(*tool)) clusters.insert(clusters.end(), listed->begin(), listed->end());
  return clusters;
}

std::optional<std::vector<std::string>> AppController::qmasterClusters(const std::string& toolPath) {
  if (!MVFileManager::fileExistsAtPath(toolPath)) return std::nullopt;
  std::string output = MVTaskEx::stringFromTask(toolPath, {"-list"}, kMVUTF8StringEncoding, kQmasterPrefsTimeout);
  if (output.empty()) {
    MVLog::appendLog("Unable to load Qmaster preferences");
    return std::nullopt;
  }
  // A cluster line reads like:  -cluster on ... servername "Render Farm" ...
  const std::string mark = "servername \"";
  std::vector<std::string> clusters;
  std::size_t start = 0;
  while (start <= output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    std::string line = output.substr(start, end - start);
    start = end + 1;
    if (!hasPrefix(line, " -cluster on")) continue;
    std::size_t open = line.find(mark);
    if (open == std::string::npos) continue;
    open += mark.size();
    std::size_t close = line.find('"', open);
    if (close == std::string::npos || close == open) continue;
    std::string name = line.substr(open, close - open);
    if (!hasSuffix(name, " Cluster")) name += " Cluster";
    clusters.push_back(name);
  }
  return clusters;
}

AppController::BatchTable AppController::qmasterBatchesInCluster(const std::string& cluster) {
  BatchTable table;
  auto merge = [&table](std::optional<BatchTable> answer) {
    if (!answer) return;
    for (auto& [batchID, record] : *answer) table.insert_or_assign(batchID, std::move(record));
  };
  // A missing Batch Monitor is asked anyway, so that the log says so.
  auto batchMonitor = executableInBundle(pathForAppWithBundleID(kBatchMonitorBundleID), kBatchMonitorExecutable);
  merge(qmasterBatchesInCluster(cluster, batchMonitor.value_or("")));
  // Share Monitor (Compressor 4) comes last: its answer wins for a batch
  // that both monitors know.
  if (auto shareMonitor = executableInBundle(pathForAppWithBundleID(kCompressorBundleID), kShareMonitorExecutable))
    merge(qmasterBatchesInCluster(cluster, *shareMonitor));
  return table;
}

std::optional<AppController::BatchTable> AppController::qmasterBatchesInCluster(const std::string& cluster,
                                                                                const std::string& applicationPath) {
  if (cluster.empty()) {
    MVLog::appendLog("No cluster name");
    return std::nullopt;
  }
  if (applicationPath.empty() || !MVFileManager::fileExistsAtPath(applicationPath)) {
    MVLog::appendLog("Path %@ doesn't exist", applicationPath.empty() ? MVPlistValue() : MVPlistValue(applicationPath));
    return std::nullopt;
  }
  auto data = MVTaskEx::dataFromTask(applicationPath, {"-clustername", cluster, "-query", "0.3", "-timeout", "0.3"},
                                     kMonitorTimeout);
  if (!data) {
    MVLog::appendLog("No data returned from job");
    return BatchTable{};
  }

  BatchTable table;
  if (data->size() <= kTimedOutAnswerBytes) {
    MVLog::appendLog("Job data timed out");
    std::string version = lastPathComponent(applicationPath) == "Share Monitor" ? "4" : "3";
    for (MVPlistValue& record : qmasterBatchesFromHistory(version))
      if (const std::string* batchID = record["batchid"].string()) table[*batchID] = std::move(record);
    return table;
  }

  auto answer = batchesInMonitorAnswer(*data);
  if (!answer) return std::nullopt;
  const std::vector<MVXMLNode>& batches = answer->batches;
  if (batches.empty()) {
    MVLog::appendLog("No batches found in data: %@", answer->document.xmlString());
    return table;
  }
  for (const MVXMLNode& batch : batches) {
    MVLog::appendLog("Batch xml: %@", batch.xmlString());
    MVPlistValue record = recordFromAttributes(batch);
    MVPlistValue files{MVPlistValue::Array{}};
    for (const MVXMLNode& job : batch.nodesForXPath(".//jobStatus"))
      appendOnce(files, job.attributeForName("name").value_or(""));
    record.set("files", files);
    if (const std::string* batchID = record["batchid"].string()) table[*batchID] = record;
    MVLog::appendLog("batchdict: %@", record);
  }
  return table;
}

std::optional<MVPlistValue> AppController::qmasterBatchWithID(const std::string& batchID, const std::string& cluster) {
  auto batchMonitor = executableInBundle(pathForAppWithBundleID(kBatchMonitorBundleID), kBatchMonitorExecutable);
  if (batchMonitor)
    if (auto record = qmasterBatchWithID(batchID, cluster, *batchMonitor)) return record;
  auto shareMonitor = executableInBundle(pathForAppWithBundleID(kCompressorBundleID), kShareMonitorExecutable);
  if (shareMonitor) return qmasterBatchWithID(batchID, cluster, *shareMonitor);
  return std::nullopt;
}

std::optional<MVPlistValue> AppController::qmasterBatchWithID(const std::string& batchID, const std::string& cluster,
                                                              const std::string& applicationPath) {
  if (batchID.empty() || cluster.empty() || !MVFileManager::fileExistsAtPath(applicationPath)) return std::nullopt;
  auto data = MVTaskEx::dataFromTask(
      applicationPath, {"-clustername", cluster, "-batchid", batchID, "-query", "0.3", "-timeout", "0.3"},
      kMonitorTimeout);
  if (!data || data->empty()) return std::nullopt;
  auto answer = batchesInMonitorAnswer(*data);
  if (!answer) return std::nullopt;
  const std::vector<MVXMLNode>& batches = answer->batches;
  if (batches.empty()) return std::nullopt;
  return recordFromAttributes(batches.front());
}

MVPlistValue::Array AppController::qmasterBatchesFromHistory(const std::string& version) {
  std::string folder = MVLocalPaths::appSupportDirectory(true) + "/Compressor/History/V" + version;
  MVPlistValue::Array records;
  for (const std::string& name : quillon::folderEntries(folder)) {
    if (!hasSuffix(name, "compressorJobBatch")) continue;
    std::string path = MVAppendPathComponent(folder, name);
    auto modified = fileModificationDate(path);
    if (!modified || now() - *modified <= kHistorySettleTime) continue;

    MVPlistValue history = MVPropertyList::read(path);
    const MVPlistValue::Array* items = history.array();
    const std::string* escaped = items && !items->empty() ? (*items)[0].string() : nullptr;
    if (!escaped) {
      MVLog::appendLog("Unable to read Compressor history file %@", path);
      continue;
    }
    // Compressor stores the batch XML with its angle brackets escaped and
    // nothing else; "&amp;" and friends are left for the XML parser.
    std::string xml = replaceAll(replaceAll(*escaped, "&lt;", "<"), "&gt;", ">");
    auto document = MVXMLDocument::documentWithData(xml);
    if (!document) {
      MVLog::appendLog("Unable to read Compressor history file %@", path);
      continue;
    }
    MVXMLNode root = document->rootElement();
    MVPlistValue record = recordFromAttributes(root);
    if (const std::string* identifier = record["id"].string()) record.set("batchid", *identifier);

    // The history knows no failures: a batch is still processing until every
    // job reached 100 percent.
    if (items->size() >= 4) {
      std::string status = "Successful";
      if (const MVPlistValue::Array* jobs = (*items)[3]["BatchInfoJobs"].array()) {
        for (const MVPlistValue& job : *jobs) {
          if (job["ElementStatusPercentComplete"].doubleValue() < 100.0) {
            status = "Processing";
            break;
          }
        }
      }
      record.set("status", status);
    }

    MVPlistValue files{MVPlistValue::Array{}};
    for (const MVXMLNode& source : root.nodesForXPath("./jobs[1]/job/source/@fileURL"))
      appendOnce(files, MVXMLParser::filenameFromPathURLString(source.stringValue()).value_or(""));
    record.set("files", files);
    records.push_back(std::move(record));
  }
  return records;
}
