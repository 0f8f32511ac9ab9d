#include "app/places_in_use.h"

#include "app/program.h"
#include "base/error.h"
#include "greylist/database_file.h"
#include "platform/files.h"
#include "tls/tls_context.h"

namespace trabex {

std::vector<WrittenFolder> WrittenFolders(const Configuration& configuration) {
  std::vector<WrittenFolder> folders = {
      {"LogPath", NativePath(configuration.LogPath), configuration.Log != log_mode::kOff},
      {"Database", FolderOf(NativePath(configuration.GreyListing.Database)),
       configuration.GreyListing.Enabled}};
  const std::string& json_log = configuration.Service.JsonLog;
  if (!json_log.empty() && json_log != kStandardOutput) {
    folders.push_back({"JsonLog", FolderOf(NativePath(json_log)), true});
  }
  return folders;
}

void MakeDatabaseFolderNow(Program& program) {
  const GreyListingSettings& settings = program.configuration.GreyListing;
  if (!settings.Enabled) return;
  try {
    MakeDatabaseFolder(settings.Database);
  } catch (const Error& error) {
    program.log.LogError(error);
  }
}

SandboxPaths PlacesInUse(const Program& program) {
  const Configuration& configuration = program.configuration;
  SandboxPaths paths;
  const auto add_file = [&](const std::string& file) {
    if (!file.empty()) paths.read_files.push_back(NativePath(file));
  };
  add_file(program.ini_file.path);
  for (const ListFile& file : configuration.ListFiles) add_file(file.path);
  for (const CertificateFiles& files : configuration.TLS.Certificate) {
    add_file(files.chain);
    add_file(files.key);
  }
  add_file(configuration.TLS.ClientCA);
  add_file(configuration.TLS.ServerCA);
  paths.read_places = TlsSystemFiles();
  for (const WrittenFolder& folder : WrittenFolders(configuration))
    paths.write_folders.push_back(folder.path);
  paths.folders_are_replaced = configuration.Service.Sandbox != sandbox::kRequired;
  return paths;
}

}  // namespace trabex
